// Everything a command needs around the module: the tracer, the allocator,
// the event output, the host services and the module's publisher service,
// all registered in one service locator.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app_core/task_manager/task/task.h"
#include "host/config/config.h"
#include "host/output/event_format.h"
#include "host/output/event_output.h"
#include "host/runtime/module_loader.h"
#include "host/runtime/scan_progress.h"
#include "host/services/service_locator.h"
#include "host/services/tracer.h"
#include "orn/allocator.h"
#include "orn/ref_ptr.h"

namespace arvo::host {

struct RuntimeSetup {
  std::uint32_t traceLevel = orn::kTraceLevelError;
  std::string traceFile;               // empty: stderr
  std::string outputFile;              // empty: stdout
  std::optional<OutputFormat> format;  // default: by whether the output is a terminal
  bool onAccess = false;               // the watch provider
  WatchBackend backend = WatchBackend::kAuto;
  bool onDemand = false;  // hashing, files, persistent storage, serializer, task info
  const MonitorConfig* config = nullptr;   // task id and name for the task info
  std::shared_ptr<ScanProgress> progress;  // set: matchers count their calls here
  // Further outputs every event also goes to, after the primary one (the
  // daemon's events log, ...). Each must be thread-safe.
  std::vector<orn::RefPtr<pax::IEventPublisher>> extraOutputs;
};

// Owns the services; the module must outlive it. Used by one thread (the
// command's); the services themselves are thread-safe.
class HostRuntime {
 public:
  // On failure returns null and describes the failure in `error`.
  static std::unique_ptr<HostRuntime> Create(const ModuleLoader& module, const RuntimeSetup& setup,
                                             std::string& error);
  // Clears the locator first: the publisher service holds the locator and
  // the locator holds the publisher service.
  ~HostRuntime();
  HostRuntime(const HostRuntime&) = delete;
  HostRuntime& operator=(const HostRuntime&) = delete;

  ServiceLocator* Locator() const { return m_locator.Get(); }
  orn::ITracer* GetTracer() const { return m_tracer.Get(); }
  EventOutput& Events() const { return *m_events; }
  const std::shared_ptr<LineWriter>& Writer() const { return m_writer; }
  OutputFormat Format() const { return m_format; }
  // Which watch backend runs, and why ("fanotify (file-system marks)"); empty
  // without the on-access services.
  const std::string& WatchBackendDescription() const { return m_watchBackend; }
  // The module's publisher service (answers the subscription interface).
  orn::IObject* PublisherService() const { return m_publisherService.Get(); }

  // ornGetObjectFactory(clsid) -> CreateInstance(ITask). On failure returns
  // the result and describes it in `error`.
  orn::result_t CreateTask(orn::clsid_t clsid,
                           orn::RefPtr<app_core::task_manager::task::ITask>& task,
                           std::string& error) const;

 private:
  explicit HostRuntime(const ModuleLoader& module) : m_module(module) {}
  bool Init(const RuntimeSetup& setup, std::string& error);
  bool AddOnDemandServices(const RuntimeSetup& setup, std::string& error);
  bool AddPublisherService(std::string& error);

  const ModuleLoader& m_module;
  orn::RefPtr<Tracer> m_tracer;
  orn::RefPtr<ServiceLocator> m_locator;
  std::shared_ptr<LineWriter> m_writer;
  OutputFormat m_format = OutputFormat::kJson;
  orn::RefPtr<EventOutput> m_events;
  orn::RefPtr<orn::IObject> m_publisherService;
  std::string m_watchBackend;
};

// "<what>: 0x8000004b (Unspecified error)"
std::string DescribeFailure(const std::string& what, orn::result_t r);

}  // namespace arvo::host
