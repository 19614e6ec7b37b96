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
#include "host/runtime/coverage_response.h"
#include "host/runtime/module_loader.h"
#include "host/runtime/scan_progress.h"
#include "host/runtime/watch_provider.h"
#include "host/services/service_locator.h"
#include "host/services/tracer.h"
#include "host/watch/inotify_provider.h"
#include "orn/allocator.h"
#include "orn/ref_ptr.h"

namespace arvo::host {

struct RuntimeSetup {
  std::uint32_t traceLevel = orn::kTraceLevelError;
  std::string traceFile;               // empty: stderr
  std::string outputFile;              // empty: stdout
  std::optional<OutputFormat> format;  // default: by whether the output is a terminal
  bool journal = false;                // events also go to the systemd journal
  bool onAccess = false;               // the watch provider
  WatchBackend backend = WatchBackend::kAuto;
  bool onDemand = false;  // hashing, files, persistent storage, serializer, task info
  const MonitorConfig* config = nullptr;   // task id and name for the task info
  std::shared_ptr<ScanProgress> progress;  // set: matchers count their calls here
  std::shared_ptr<TraceTap> traceTap;      // set: sees every line up to the warning level
  // Further outputs every event also goes to, after the primary one (the
  // daemon's events log, ...). Each must be thread-safe.
  std::vector<orn::RefPtr<pax::IEventPublisher>> extraOutputs;
  // With onAccess: asked for a catch-up scan when the watch side loses
  // events or part of an area (the loss is published as an event either
  // way). Called on the provider's threads; must outlive the runtime.
  CatchUpScanRequest requestCatchUpScan;
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
  // Stdout or the output file (counts the events it printed).
  EventOutput& Events() const { return *m_events; }
  // Every output (the one above, the journal when asked for); what the
  // module publishes to, and where the host's own events go.
  pax::IEventPublisher& Publisher() const { return *m_publisher; }
  // Watches again the area roots that were deleted and exist now (each one
  // is published as "CoverageRestored"). Call before each scan, so that the
  // scan covers what the roots gained while unwatched. Without on-access
  // services does nothing.
  void RewatchLostAreas() const;
  const std::shared_ptr<LineWriter>& Writer() const { return m_writer; }
  OutputFormat Format() const { return m_format; }
  // Opens the output file anew (after log rotation moved it away); nothing
  // to do when events go to standard output. On failure the old file stays
  // in use and `error` says why.
  bool ReopenOutput(std::string& error) const;
  // Which watch backend runs, and why ("fanotify (file-system marks)"); empty
  // without the on-access services.
  const std::string& WatchBackendDescription() const { return m_watchBackend.description; }
  // fanotify watches the areas: watching one costs no per-directory watch.
  bool WatchesFileSystems() const { return m_watchBackend.fileSystemMarks; }
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
  std::string m_outputFile;  // empty: standard output
  OutputFormat m_format = OutputFormat::kJson;
  orn::RefPtr<EventOutput> m_events;
  orn::RefPtr<pax::IEventPublisher> m_publisher;
  std::shared_ptr<InotifyCoverage> m_coverage;
  orn::RefPtr<orn::IObject> m_publisherService;
  WatchProviderChoice m_watchBackend;
};

// "<what>: 0x8000004b (Unspecified error)"
std::string DescribeFailure(const std::string& what, orn::result_t r);

}  // namespace arvo::host
