#include "on_demand_integrity_monitor_task.h"

#include <sys/prctl.h>

#include <vector>

#include "area_snapshot_builder.h"
#include "change_publisher.h"
#include "failure_actions.h"
#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/trace.h"
#include "pax/enumerations.h"
#include "settings_history.h"

namespace pax::fim {
namespace {

using app_core::task_manager::task::ITaskStopEvents;
using app_core::task_manager::task::TaskSessionId;
using app_core::task_manager::task::TaskStopInfo;

constexpr std::uint32_t kStopped = static_cast<std::uint32_t>(TaskState::kStopped);
constexpr std::uint32_t kStarted = static_cast<std::uint32_t>(TaskState::kStarted);
constexpr std::uint32_t kPausing = static_cast<std::uint32_t>(TaskState::kPausing);
constexpr std::uint32_t kSuspended = static_cast<std::uint32_t>(TaskState::kSuspended);
constexpr std::uint32_t kResuming = static_cast<std::uint32_t>(TaskState::kResuming);

// At most 15 characters, so the kernel never cuts it.
constexpr const char kThreadName[] = "arvoIntMonTask";

}  // namespace

OnDemandIntegrityMonitorTask::OnDemandIntegrityMonitorTask(orn::IServiceLocator* locator)
    : m_state(kStopped) {
  m_allocator = orn::GetInterfaceOrThrow<orn::IAllocator>(locator);
  m_tracer = orn::GetInterfaceOrThrow<orn::ITracer>(locator);
  m_serviceLocator = orn::RefPtr<orn::IServiceLocator>(locator);
  m_database.emplace(GetTracer());
  m_context.tracer = GetTracer();
  m_context.settings = &m_settings;
  m_context.taskInfo = &m_taskInfo;
  m_context.stopFlag = &m_stopFlag;
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
}

OnDemandIntegrityMonitorTask::~OnDemandIntegrityMonitorTask() {
  // FinalRelease has joined the worker unless construction failed, when
  // there is none; the run must never outlive the members it uses.
  m_stopFlag = 1;
  m_pauseGate.Release();
  m_thread.Join();
}

result_t OnDemandIntegrityMonitorTask::FinalConstruct() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  if (const result_t r = m_database->Open(); ORN_FAILED(r)) return r;
  m_context.db = m_database->Handle();
  if (const result_t r = ORN_CHECK_AS(GetTracer(), m_database->InitializeDatabase(),
                                      "InitializeDatabase()", "Cannot initialize database");
      ORN_FAILED(r))
    return r;

  orn::IServiceLocator* sl = GetServiceLocator();
  if (const result_t r = ORN_CHECK(GetTracer(), orn::GetInterface(sl, m_eventPublisher.Ref()),
                                   "Cannot get IEventPublisher interface");
      ORN_FAILED(r))
    return r;
  if (const result_t r =
          ORN_CHECK(GetTracer(), orn::GetInterface(sl, m_integrityMonitorPublisher.Ref()),
                    "Cannot get IIntegrityMonitorPublisher interface");
      ORN_FAILED(r))
    return r;
  if (const result_t r = ORN_CHECK(GetTracer(), orn::GetInterface(sl, m_sha256Provider.Ref()),
                                   "Cannot get filesystem_services::ISha256HashProvider interface");
      ORN_FAILED(r))
    return r;
  if (const result_t r = ORN_CHECK(
          GetTracer(), orn::GetInterface(sl, m_fileFactory.Ref(), orn::NfioFileFactoryCLSID),
          "Cannot get orn::IFileFactory interface");
      ORN_FAILED(r))
    return r;
  if (const result_t r = ORN_CHECK(GetTracer(), orn::GetInterface(sl, m_storage.Ref()),
                                   "Cannot get orn::IPersistentStorage interface");
      ORN_FAILED(r))
    return r;
  if (const result_t r = ORN_CHECK(GetTracer(), orn::GetInterface(sl, m_serializer2.Ref()),
                                   "Cannot get orn::IStorageSerializer2 interface");
      ORN_FAILED(r))
    return r;
  m_context.eventPublisher = m_eventPublisher.Get();
  m_context.integrityMonitorPublisher = m_integrityMonitorPublisher.Get();
  m_context.sha256Provider = m_sha256Provider.Get();
  m_context.fileFactory = m_fileFactory.Get();
  // Optional: a host without it has files opened by path, checked against
  // what the walk found (area_resolver.h).
  if (ORN_SUCCEEDED(orn::QueryInterface(m_fileFactory.Get(), m_fileFactoryAt)))
    m_context.fileFactoryAt = m_fileFactoryAt.Get();

  std::lock_guard lock(m_mutex);
  return ORN_CHECK(GetTracer(), CreateMatcher(), "Cannot create path matcher");
}

void OnDemandIntegrityMonitorTask::FinalRelease() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  m_stopFlag = 1;
  // A worker parked at the gate runs on and sees the stop flag.
  m_pauseGate.Release();
  m_thread.Join();
}

result_t OnDemandIntegrityMonitorTask::CreateMatcher() {
  orn::RefPtr<IPathMatcherFactory> matcherFactory;
  if (const result_t r =
          ORN_CHECK(GetTracer(), orn::GetInterface(GetServiceLocator(), matcherFactory.Ref()),
                    "Cannot get pax::IPathMatcherFactory interface");
      ORN_FAILED(r))
    return r;
  orn::RefPtr<IPathMatcher> matcher;
  if (const result_t r = ORN_CHECK(
          GetTracer(), matcherFactory->CreateFntreeMatcher(m_settings, m_settings, matcher.Ref()),
          "Cannot create path matcher");
      ORN_FAILED(r))
    return r;
  m_matcher = std::move(matcher);
  m_context.matcher = m_matcher.Get();
  return orn::errors::kOk;
}

result_t OnDemandIntegrityMonitorTask::Construct(const settings::ODFIMSettings* settings) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  return SetSettings(settings);
}

result_t OnDemandIntegrityMonitorTask::GetSettings(settings::ODFIMSettings* settings) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  if (!settings) return orn::errors::kInvalidArgument;
  std::lock_guard lock(m_mutex);
  *settings = m_settings;
  return orn::errors::kOk;
}

result_t OnDemandIntegrityMonitorTask::SetSettings(const settings::ODFIMSettings* settings) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  if (!settings) return orn::errors::kInvalidArgument;
  std::lock_guard lock(m_mutex);
  m_settings = *settings;
  return ORN_CHECK_AS(GetTracer(), CreateMatcher(), "CreateMatcher()", "");
}

result_t OnDemandIntegrityMonitorTask::Start(TaskSessionId sessionId, ITaskStopEvents* stopEvents) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  std::lock_guard lock(m_mutex);
  if (m_state.load() != kStopped) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
        << kOdfimPrefix << "Task is not stopped, session id: " << sessionId;
    return orn::errors::kInvalidState;
  }
  m_stopEvents = stopEvents;
  m_sessionId = sessionId;
  m_state = kStarted;
  m_stopFlag = 0;
  // The run takes the task lock first thing, so it begins once Start has
  // returned. On failure the state stays Started with no thread: a
  // following Stop succeeds and restores Stopped.
  if (const result_t r = ORN_CHECK(GetTracer(), m_thread.Start([this] { return Run(); }),
                                   "Cannot create ODFIM thread");
      ORN_FAILED(r))
    return r;
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
      << kOdfimPrefix << "Task started, session id: " << sessionId;
  return orn::errors::kOk;
}

result_t OnDemandIntegrityMonitorTask::Stop() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  if (m_state.load() != kStarted) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
        << kOdfimPrefix << "Task is not started, session id: " << m_sessionId.load();
    return orn::errors::kInvalidState;
  }
  // A running walk sees the flag and ends early. The run is joined before
  // the task lock is taken: a run that has not taken the lock yet (Stop
  // right after Start) would otherwise wait for it behind this join. While
  // the state is Started, Start leaves m_thread alone.
  m_stopFlag = 1;
  m_thread.Join();
  std::lock_guard lock(m_mutex);
  m_state = kStopped;
  m_stopEvents = nullptr;
  return orn::errors::kOk;
}

result_t OnDemandIntegrityMonitorTask::Pause() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  std::uint32_t expected = kStarted;
  if (!m_state.compare_exchange_strong(expected, kPausing)) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Task is not started";
    return orn::errors::kInvalidState;
  }
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Request pause and wait";
  m_pauseGate.RequestPause();
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Thread suspended";
  m_state = kSuspended;
  return orn::errors::kOk;
}

result_t OnDemandIntegrityMonitorTask::Resume() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  std::uint32_t expected = kSuspended;
  if (!m_state.compare_exchange_strong(expected, kResuming)) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Task is not suspended";
    return orn::errors::kInvalidState;
  }
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Resuming thread";
  m_pauseGate.Release();
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Resumed";
  m_state = kStarted;
  return orn::errors::kOk;
}

void OnDemandIntegrityMonitorTask::NotifyTaskStop(result_t result,
                                                  const orn::types::string16_t& reason) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
      << kOdfimPrefix << __PRETTY_FUNCTION__ << " code: " << result << ", reason: " << reason;
  if (!m_stopEvents) return;
  (void)m_stopEvents->OnTaskStopped(TaskStopInfo{result, reason});
}

std::uint32_t OnDemandIntegrityMonitorTask::Run() {
  prctl(PR_SET_NAME, kThreadName, 0, 0, 0);
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  std::lock_guard lock(m_mutex);
  FailureActions actions;
  actions.Add([this](result_t) {
    NotifyTaskStop(orn::errors::kUnspecified, u"Task is completed with error");
  });
  result_t result = orn::errors::kOk;
  try {
    result = RunSteps(actions);
  } catch (...) {
    result = orn::ExceptionToResult(GetTracer(), "Unexpected error in Run: ");
  }
  if (ORN_FAILED(result)) {
    actions.Run(result);
  } else {
    actions.Discard();
  }
  return static_cast<std::uint32_t>(result);
}

result_t OnDemandIntegrityMonitorTask::RunSteps(FailureActions& actions) {
  {
    orn::RefPtr<ITaskInfoProvider> taskInfoProvider;
    if (const result_t r =
            ORN_CHECK(GetTracer(), orn::GetInterface(GetServiceLocator(), taskInfoProvider.Ref()),
                      "Cannot get ITaskInfoProvider interface");
        ORN_FAILED(r))
      return r;
    if (const result_t r = ORN_CHECK(
            GetTracer(), taskInfoProvider->GetTaskInfoByTaskSessionId(m_sessionId, m_taskInfo),
            "Cannot get task info by session id");
        ORN_FAILED(r))
      return r;
  }

  SettingsHistory history(m_context, *m_database, m_storage.Get(), m_serializer2.Get());
  settings::ODFIMSettings prevSettings;
  if (const result_t r = history.LoadPreviousSettings(prevSettings); ORN_FAILED(r)) return r;

  const std::vector<settings::ScanArea> areas = m_settings.scanAreas;
  ChangePublisher publisher(m_context);
  AreaSnapshotBuilder areaBuilder(m_context, *m_database, history, publisher, m_pauseGate);
  bool reported = false;
  for (const settings::ScanArea& area : areas) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Path: " << area.path;
    const result_t res = areaBuilder.BuildAreaSnapshot(area, prevSettings);
    if (ORN_FAILED(res)) {
      (void)ORN_CHECK_AS(GetTracer(), res, "BuildAreaSnapshot(area, prevSettings)",
                         "Cannot build snapshot for " << area.path);
      if (res == orn::errors::kCancelled) {
        NotifyTaskStop(orn::errors::kFalse, u"Task is interrupted");
      } else {
        NotifyTaskStop(res, u"Task is completed with error");
      }
      actions.Discard();
      return orn::errors::kOk;
    }
    if (res == orn::errors::kFalse) reported = true;
  }
  // Publishing failures are traced by the publisher; the scan stands.
  if (!reported) (void)publisher.PublishSystemIntegrityOk();

  if (const result_t r = ORN_CHECK_AS(GetTracer(), history.Collect(m_taskInfo.taskId, prevSettings),
                                      "Collect(m_taskInfo.taskId, prevSettings)", "");
      ORN_FAILED(r))
    return r;
  if (const result_t r =
          ORN_CHECK_AS(GetTracer(), history.SaveSettingsToStorage(), "SaveSettingsToStorage()",
                       "Cannot save current settings to storage");
      ORN_FAILED(r))
    return r;
  NotifyTaskStop(orn::errors::kOk, u"Task is completed");
  actions.Discard();
  return orn::errors::kOk;
}

}  // namespace pax::fim
