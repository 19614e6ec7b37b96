// Fakes of the host services the module's tasks use, for unit and module
// tests: a recording event publisher, an inotify provider that lets a test
// inject notifications, path matchers with scripted answers, a stop sink, a
// detect-event receiver and a serializer that records registrations. Each
// fake is thread-safe and can be told to fail.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app_core/task_manager/task/task.h"
#include "orn/persistent_storage.h"
#include "orn/ref_ptr.h"
#include "orn/simple_object.h"
#include "pax/inotify.h"
#include "pax/integrity_monitor_publisher.h"
#include "pax/path_matcher.h"
#include "pax/product_event.h"
#include "pax/settings/fim_settings.h"

namespace arvo::test {

// Records every published event; answers `result` (0 by default).
class RecordingEventPublisher final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  orn::result_t Publish(const pax::ProductEvent& event) override;

  void FailWith(orn::result_t result);
  std::vector<pax::ProductEvent> Events() const;
  void Clear();
  // Blocks until at least `count` events have been published; returns them.
  std::vector<pax::ProductEvent> WaitForEvents(std::size_t count) const;

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  std::vector<pax::ProductEvent> m_events;
  orn::result_t m_result = 0;
};

// A provider that never watches anything: it records Subscribe/Unsubscribe
// calls, keeps a reference to each subscribed receiver as the real one does,
// and hands injected notifications to them. Honours the provider contract
// that Unsubscribe returns only once no OnEvent call to the receiver runs
// (unless called from inside that receiver's OnEvent).
class FakeInotifyProvider final : public orn::SimpleObject<pax::IInotifyEventsProvider> {
 public:
  struct Call {
    enum class Kind { kSubscribe, kUnsubscribe } kind;
    pax::IInotifyEventsReceiver* receiver;
    std::string directory;  // kSubscribe only
    std::uint32_t mask;     // kSubscribe only
  };

  orn::result_t Subscribe(pax::IInotifyEventsReceiver* receiver, const std::string& directory,
                          std::uint32_t mask) override;
  orn::result_t Unsubscribe(pax::IInotifyEventsReceiver* receiver) override;

  // The `n`th Subscribe call from now (1 = the next) fails with `result`.
  void FailSubscribeCall(std::size_t n, orn::result_t result = orn::errors::kPathNotFound);
  // Every Unsubscribe fails with `result` until called again with 0.
  void FailUnsubscribe(orn::result_t result);

  std::vector<Call> Calls() const;
  std::vector<std::string> SubscribedDirectories() const;  // live subscriptions
  bool HasReceiver() const;
  // Calls OnEvent of the subscribed receiver (the first one when several);
  // nullopt when nothing is subscribed. Any thread may inject.
  std::optional<orn::result_t> Inject(const pax::InotifyEvent& event);

 private:
  mutable std::mutex m_mutex;
  std::vector<Call> m_calls;
  std::vector<std::pair<orn::RefPtr<pax::IInotifyEventsReceiver>, std::string>> m_subscriptions;
  std::size_t m_subscribeCalls = 0;
  std::size_t m_failSubscribeAt = 0;
  orn::result_t m_subscribeFailure = 0;
  orn::result_t m_unsubscribeFailure = 0;
  // Held for the whole of an injected OnEvent.
  std::mutex m_delivery;
  std::thread::id m_deliveringThread;  // guarded by m_mutex
};

// Answers Match from a script: exact paths first, then a default (0).
// Records every question.
class ScriptedPathMatcher final : public orn::SimpleObject<pax::IPathMatcher> {
 public:
  orn::result_t Match(const pax::NativePath& path, bool isDirectory) const override;

  void Answer(const pax::NativePath& path, orn::result_t result);
  void AnswerByDefault(orn::result_t result);
  std::vector<std::pair<pax::NativePath, bool>> Questions() const;

 private:
  mutable std::mutex m_mutex;
  std::map<pax::NativePath, orn::result_t> m_answers;
  orn::result_t m_default = 0;
  mutable std::vector<std::pair<pax::NativePath, bool>> m_questions;
};

// CreateFntreeMatcher hands out a new ScriptedPathMatcher per call (or fails)
// and records the settings views it was given. The other two factories are
// not implemented.
class FakePathMatcherFactory final : public orn::SimpleObject<pax::IPathMatcherFactory> {
 public:
  orn::result_t CreateGlobMatcher(const std::vector<pax::NativePath>& globs,
                                  pax::IPathMatcher** matcher) override;
  orn::result_t CreatePrefixMatcher(const std::vector<pax::NativePath>& roots,
                                    pax::IPathMatcher** matcher) override;
  orn::result_t CreateFntreeMatcher(const pax::settings::ScanScopeSettings& scope,
                                    const pax::settings::ExclusionSettings& exclusions,
                                    pax::IPathMatcher** matcher) override;

  // Every creation fails with `result` until called again with 0.
  void FailWith(orn::result_t result);
  // Matchers are created with this default answer.
  void DefaultAnswer(orn::result_t result);
  std::size_t Created() const;
  // The most recent matcher handed out (null before the first).
  orn::RefPtr<ScriptedPathMatcher> LastMatcher() const;
  std::optional<pax::settings::ScanScopeSettings> LastScope() const;
  std::optional<pax::settings::ExclusionSettings> LastExclusions() const;

 private:
  mutable std::mutex m_mutex;
  orn::result_t m_failure = 0;
  orn::result_t m_defaultAnswer = 0;
  std::size_t m_created = 0;
  orn::RefPtr<ScriptedPathMatcher> m_last;
  std::optional<pax::settings::ScanScopeSettings> m_lastScope;
  std::optional<pax::settings::ExclusionSettings> m_lastExclusions;
};

class RecordingStopSink final
    : public orn::SimpleObject<app_core::task_manager::task::ITaskStopEvents> {
 public:
  orn::result_t OnTaskStopped(const app_core::task_manager::task::TaskStopInfo& info) override;
  std::vector<app_core::task_manager::task::TaskStopInfo> Reports() const;
  // Blocks until at least `count` reports have arrived; returns the last.
  app_core::task_manager::task::TaskStopInfo WaitForCount(std::size_t count) const;

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  std::vector<app_core::task_manager::task::TaskStopInfo> m_reports;
};

// Records each detect event (path copied) and runs an optional hook inside
// the callback, on the delivering thread.
class RecordingDetectReceiver final
    : public orn::SimpleObject<mdr::agent::IFileIntegrityMonitorDetectEvent> {
 public:
  struct Detection {
    std::uint32_t detectType;
    std::string path;
    std::optional<pax::Sha256Digest> digest;
    bool hasExtra;
  };
  using Hook = std::function<void(const pax::DetectEvent&)>;

  orn::result_t OnDetectEvent(const pax::DetectEvent& event) override;

  void SetHook(Hook hook);
  std::vector<Detection> Detections() const;
  std::size_t Count() const;
  // Blocks until at least `count` detections have arrived.
  void WaitForCount(std::size_t count) const;

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  std::vector<Detection> m_detections;
  Hook m_hook;
};

// Records registered type descriptors; Serialize/Deserialize are not
// implemented.
class RecordingSerializer final : public orn::SimpleObject<orn::IStorageSerializer2> {
 public:
  orn::result_t RegisterType(const orn::serial::TypeDescriptor* type) override;
  orn::result_t Serialize(orn::serial::AnyDescr record, orn::IStorageNode* node,
                          std::uint32_t flags, void* reserved) override;
  orn::result_t Deserialize(orn::Any& out, orn::IStorageNode* node, std::uint32_t flags,
                            void* reserved) override;
  std::vector<const orn::serial::TypeDescriptor*> Registered() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<const orn::serial::TypeDescriptor*> m_registered;
};

// The string16 text of a field value, for readable assertions.
std::string Narrow(const std::u16string& text);

}  // namespace arvo::test
