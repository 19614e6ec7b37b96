#include "tests/fake_services.h"

#include <algorithm>
#include <utility>

#include "orn/text.h"

namespace arvo::test {

orn::result_t RecordingEventPublisher::Publish(const pax::ProductEvent& event) {
  orn::result_t result;
  {
    std::lock_guard lock(m_mutex);
    m_events.push_back(event);
    result = m_result;
  }
  m_changed.notify_all();
  return result;
}

void RecordingEventPublisher::FailWith(orn::result_t result) {
  std::lock_guard lock(m_mutex);
  m_result = result;
}

void RecordingEventPublisher::Clear() {
  std::lock_guard lock(m_mutex);
  m_events.clear();
}

std::vector<pax::ProductEvent> RecordingEventPublisher::Events() const {
  std::lock_guard lock(m_mutex);
  return m_events;
}

std::vector<pax::ProductEvent> RecordingEventPublisher::WaitForEvents(std::size_t count) const {
  std::unique_lock lock(m_mutex);
  m_changed.wait(lock, [&] { return m_events.size() >= count; });
  return m_events;
}

orn::result_t FakeInotifyProvider::Subscribe(pax::IInotifyEventsReceiver* receiver,
                                             const std::string& directory, std::uint32_t mask) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back({Call::Kind::kSubscribe, receiver, directory, mask});
  if (++m_subscribeCalls == m_failSubscribeAt) return m_subscribeFailure;
  m_subscriptions.emplace_back(orn::RefPtr<pax::IInotifyEventsReceiver>(receiver), directory);
  return orn::errors::kOk;
}

orn::result_t FakeInotifyProvider::Unsubscribe(pax::IInotifyEventsReceiver* receiver) {
  decltype(m_subscriptions) dropped;  // released after the locks
  bool fromDelivery = false;
  {
    std::lock_guard lock(m_mutex);
    m_calls.push_back({Call::Kind::kUnsubscribe, receiver, {}, 0});
    if (ORN_FAILED(m_unsubscribeFailure)) return m_unsubscribeFailure;
    auto keep = std::stable_partition(m_subscriptions.begin(), m_subscriptions.end(),
                                      [&](const auto& s) { return s.first.Get() != receiver; });
    std::move(keep, m_subscriptions.end(), std::back_inserter(dropped));
    m_subscriptions.erase(keep, m_subscriptions.end());
    fromDelivery = m_deliveringThread == std::this_thread::get_id();
  }
  // Wait out a delivery running on another thread.
  if (!fromDelivery) {
    std::lock_guard wait(m_delivery);
  }
  return orn::errors::kOk;
}

void FakeInotifyProvider::FailSubscribeCall(std::size_t n, orn::result_t result) {
  std::lock_guard lock(m_mutex);
  m_failSubscribeAt = m_subscribeCalls + n;
  m_subscribeFailure = result;
}

void FakeInotifyProvider::FailUnsubscribe(orn::result_t result) {
  std::lock_guard lock(m_mutex);
  m_unsubscribeFailure = result;
}

std::vector<FakeInotifyProvider::Call> FakeInotifyProvider::Calls() const {
  std::lock_guard lock(m_mutex);
  return m_calls;
}

std::vector<std::string> FakeInotifyProvider::SubscribedDirectories() const {
  std::lock_guard lock(m_mutex);
  std::vector<std::string> out;
  for (const auto& s : m_subscriptions) out.push_back(s.second);
  return out;
}

bool FakeInotifyProvider::HasReceiver() const {
  std::lock_guard lock(m_mutex);
  return !m_subscriptions.empty();
}

std::optional<orn::result_t> FakeInotifyProvider::Inject(const pax::InotifyEvent& event) {
  std::lock_guard delivery(m_delivery);
  orn::RefPtr<pax::IInotifyEventsReceiver> receiver;
  {
    std::lock_guard lock(m_mutex);
    if (m_subscriptions.empty()) return std::nullopt;
    receiver = m_subscriptions.front().first;
    m_deliveringThread = std::this_thread::get_id();
  }
  const orn::result_t result = receiver->OnEvent(event);
  {
    std::lock_guard lock(m_mutex);
    m_deliveringThread = {};
  }
  return result;
}

orn::result_t ScriptedPathMatcher::Match(const pax::NativePath& path, bool isDirectory) const {
  std::lock_guard lock(m_mutex);
  m_questions.emplace_back(path, isDirectory);
  auto it = m_answers.find(path);
  return it == m_answers.end() ? m_default : it->second;
}

void ScriptedPathMatcher::Answer(const pax::NativePath& path, orn::result_t result) {
  std::lock_guard lock(m_mutex);
  m_answers[path] = result;
}

void ScriptedPathMatcher::AnswerByDefault(orn::result_t result) {
  std::lock_guard lock(m_mutex);
  m_default = result;
}

std::vector<std::pair<pax::NativePath, bool>> ScriptedPathMatcher::Questions() const {
  std::lock_guard lock(m_mutex);
  return m_questions;
}

orn::result_t FakePathMatcherFactory::CreateGlobMatcher(const std::vector<pax::NativePath>&,
                                                        pax::IPathMatcher** matcher) {
  *matcher = nullptr;
  return orn::errors::kNotImplemented;
}

orn::result_t FakePathMatcherFactory::CreatePrefixMatcher(const std::vector<pax::NativePath>&,
                                                          pax::IPathMatcher** matcher) {
  *matcher = nullptr;
  return orn::errors::kNotImplemented;
}

orn::result_t FakePathMatcherFactory::CreateFntreeMatcher(
    const pax::settings::ScanScopeSettings& scope,
    const pax::settings::ExclusionSettings& exclusions, pax::IPathMatcher** matcher) {
  std::lock_guard lock(m_mutex);
  m_lastScope = scope;
  m_lastExclusions = exclusions;
  *matcher = nullptr;
  if (ORN_FAILED(m_failure)) return m_failure;
  m_last = orn::MakeSimple<ScriptedPathMatcher>();
  m_last->AnswerByDefault(m_defaultAnswer);
  ++m_created;
  m_last->AddRef();
  *matcher = m_last.Get();
  return orn::errors::kOk;
}

void FakePathMatcherFactory::FailWith(orn::result_t result) {
  std::lock_guard lock(m_mutex);
  m_failure = result;
}

void FakePathMatcherFactory::DefaultAnswer(orn::result_t result) {
  std::lock_guard lock(m_mutex);
  m_defaultAnswer = result;
}

std::size_t FakePathMatcherFactory::Created() const {
  std::lock_guard lock(m_mutex);
  return m_created;
}

orn::RefPtr<ScriptedPathMatcher> FakePathMatcherFactory::LastMatcher() const {
  std::lock_guard lock(m_mutex);
  return m_last;
}

std::optional<pax::settings::ScanScopeSettings> FakePathMatcherFactory::LastScope() const {
  std::lock_guard lock(m_mutex);
  return m_lastScope;
}

std::optional<pax::settings::ExclusionSettings> FakePathMatcherFactory::LastExclusions() const {
  std::lock_guard lock(m_mutex);
  return m_lastExclusions;
}

orn::result_t RecordingStopSink::OnTaskStopped(
    const app_core::task_manager::task::TaskStopInfo& info) {
  std::lock_guard lock(m_mutex);
  m_reports.push_back(info);
  m_changed.notify_all();
  return orn::errors::kOk;
}

std::vector<app_core::task_manager::task::TaskStopInfo> RecordingStopSink::Reports() const {
  std::lock_guard lock(m_mutex);
  return m_reports;
}

app_core::task_manager::task::TaskStopInfo RecordingStopSink::WaitForCount(
    std::size_t count) const {
  std::unique_lock lock(m_mutex);
  m_changed.wait(lock, [&] { return m_reports.size() >= count; });
  return m_reports.back();
}

orn::result_t RecordingDetectReceiver::OnDetectEvent(const pax::DetectEvent& event) {
  Hook hook;
  {
    std::lock_guard lock(m_mutex);
    std::optional<pax::Sha256Digest> digest;
    if (event.digest) digest = *event.digest;
    m_detections.push_back({event.detectType, event.path, digest, event.extra != nullptr});
    hook = m_hook;
  }
  m_changed.notify_all();
  if (hook) hook(event);
  return orn::errors::kOk;
}

void RecordingDetectReceiver::SetHook(Hook hook) {
  std::lock_guard lock(m_mutex);
  m_hook = std::move(hook);
}

std::vector<RecordingDetectReceiver::Detection> RecordingDetectReceiver::Detections() const {
  std::lock_guard lock(m_mutex);
  return m_detections;
}

std::size_t RecordingDetectReceiver::Count() const {
  std::lock_guard lock(m_mutex);
  return m_detections.size();
}

void RecordingDetectReceiver::WaitForCount(std::size_t count) const {
  std::unique_lock lock(m_mutex);
  m_changed.wait(lock, [&] { return m_detections.size() >= count; });
}

orn::result_t RecordingSerializer::RegisterType(const orn::serial::TypeDescriptor* type) {
  std::lock_guard lock(m_mutex);
  m_registered.push_back(type);
  return orn::errors::kOk;
}

orn::result_t RecordingSerializer::Serialize(orn::serial::AnyDescr, orn::IStorageNode*,
                                             std::uint32_t, void*) {
  return orn::errors::kNotImplemented;
}

orn::result_t RecordingSerializer::Deserialize(orn::Any&, orn::IStorageNode*, std::uint32_t,
                                               void*) {
  return orn::errors::kNotImplemented;
}

std::vector<const orn::serial::TypeDescriptor*> RecordingSerializer::Registered() const {
  std::lock_guard lock(m_mutex);
  return m_registered;
}

std::string Narrow(const std::u16string& text) { return orn::text::WideToNarrow(text); }

}  // namespace arvo::test
