#include "host/runtime/on_access_session.h"

#include <cstdio>
#include <vector>

#include "pax/fim_tasks.h"

namespace arvo::host {

OnAccessSession::~OnAccessSession() {
  std::string error;
  if (!Stop(error)) std::fprintf(stderr, "arvo-fim: %s\n", error.c_str());
}

bool OnAccessSession::Start(const HostRuntime& runtime,
                            const pax::settings::OAFIMSettings& settings, bool detections,
                            std::string& error) {
  if (ORN_FAILED(runtime.CreateTask(pax::fim::kIntegrityMonitorTaskClsid, m_task, error)))
    return false;
  // The task subscribes every area it is given, enabled or not.
  pax::settings::OAFIMSettings watched = settings;
  std::erase_if(watched.scanAreas, [](const auto& area) { return !area.areaFlag; });
  orn::RefPtr<pax::fim::IIntegrityMonitorTaskConstruct> construct;
  orn::result_t r = orn::QueryInterface(m_task.Get(), construct);
  if (ORN_SUCCEEDED(r)) r = construct->Construct(&watched);
  if (ORN_FAILED(r)) {
    error = DescribeFailure("the on-access monitor refused its settings", r);
    m_task.Reset();
    return false;
  }
  if (detections) {
    r = orn::QueryInterface(runtime.PublisherService(), m_subscription);
    m_printer = orn::MakeSimple<DetectionPrinter>(runtime.Writer(), runtime.Format());
    if (ORN_SUCCEEDED(r)) r = m_subscription->Subscribe(m_printer.Get());
    if (ORN_FAILED(r)) {
      error = DescribeFailure("cannot subscribe to the publisher service", r);
      m_subscription.Reset();
      m_task.Reset();
      return false;
    }
  }
  m_stopSink = orn::MakeSimple<StopSink>();
  r = m_task->Start(1, m_stopSink.Get());
  if (ORN_FAILED(r)) {
    error = DescribeFailure("cannot start the on-access monitor", r);
    DropPrinter();
    m_task.Reset();
    return false;
  }
  m_started = true;
  m_watchedAreas = watched.scanAreas.size();
  return true;
}

bool OnAccessSession::SetSettings(const pax::settings::OAFIMSettings& settings,
                                  std::string& error) {
  orn::RefPtr<pax::fim::IIntegrityMonitorTaskSettings> target;
  orn::result_t r = m_task ? orn::QueryInterface(m_task.Get(), target) : orn::errors::kInvalidState;
  if (ORN_SUCCEEDED(r)) r = target->SetSettings(&settings);
  if (ORN_FAILED(r)) {
    error = DescribeFailure("the on-access monitor refused its new settings", r);
    return false;
  }
  return true;
}

bool OnAccessSession::Stop(std::string& error) {
  bool ok = true;
  if (m_started) {
    m_started = false;
    if (const orn::result_t r = m_task->Stop(); ORN_FAILED(r)) {
      error = DescribeFailure("cannot stop the on-access monitor", r);
      ok = false;
    }
  }
  DropPrinter();
  m_task.Reset();
  return ok;
}

void OnAccessSession::DropPrinter() {
  if (m_subscription && m_printer) (void)m_subscription->UnsubscribeAndWait(m_printer.Get());
  m_subscription.Reset();
  m_printer.Reset();
}

}  // namespace arvo::host
