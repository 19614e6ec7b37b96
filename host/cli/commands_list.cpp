#include "host/cli/commands_list.h"

#include <cstdio>

#include "host/cli/commands_common.h"
#include "host/services/allocator.h"
#include "host/services/service_locator.h"
#include "host/services/tracer.h"
#include "pax/fim_tasks.h"
#include "pax/integrity_monitor_publisher.h"

namespace arvo::host {
namespace {

void PrintRow(orn::clsid_t clsid, const char* what, orn::result_t r, const std::string& detail) {
  std::printf("  0x%08X  %-46s %s%s\n", clsid, what,
              ORN_SUCCEEDED(r) ? "available" : orn::ResultToTraceText(r).c_str(), detail.c_str());
}

std::string InterfaceRow(const char* name, orn::iid_t iid, bool answered) {
  char id[16];
  std::snprintf(id, sizeof id, "0x%08X", iid);
  return std::string(14, ' ') + name + ' ' + id + ": " + (answered ? "yes" : "no");
}

bool ListFactory(const ModuleLoader& module, orn::IServiceLocator* locator, orn::clsid_t clsid,
                 const char* what) {
  orn::RefPtr<orn::IObjectFactory> factory;
  orn::result_t r = module.GetObjectFactory()(locator, clsid, factory.Ref());
  if (ORN_SUCCEEDED(r) && !factory) r = orn::errors::kUnexpected;
  std::string detail;
  if (ORN_SUCCEEDED(r)) {
    orn::RefPtr<orn::IObjectFactory> same;
    if (ORN_FAILED(orn::QueryInterface(factory.Get(), same))) detail = " (no IObjectFactory)";
  }
  PrintRow(clsid, what, r, detail);
  return ORN_SUCCEEDED(r);
}

bool ListPublisherService(const ModuleLoader& module, orn::IServiceLocator* locator) {
  orn::RefPtr<orn::IObject> service;
  const orn::result_t r = module.CreateObject()(pax::fim::kIntegrityMonitorPublisherServiceClsid,
                                                &locator, service.Ref());
  std::string detail;
  bool complete = ORN_SUCCEEDED(r) && service;
  if (complete) {
    orn::RefPtr<pax::IIntegrityMonitorPublisher> publisher;
    orn::RefPtr<mdr::agent::IFileIntegrityMonitorDetectEventSubscription> subscription;
    const bool publishes = ORN_SUCCEEDED(orn::QueryInterface(service.Get(), publisher));
    const bool subscribes = ORN_SUCCEEDED(orn::QueryInterface(service.Get(), subscription));
    detail = "\n" +
             InterfaceRow("IIntegrityMonitorPublisher",
                          orn::IidOf<pax::IIntegrityMonitorPublisher>(), publishes) +
             "\n" +
             InterfaceRow("IFileIntegrityMonitorDetectEventSubscription",
                          orn::IidOf<mdr::agent::IFileIntegrityMonitorDetectEventSubscription>(),
                          subscribes);
    complete = publishes && subscribes;
  }
  PrintRow(pax::fim::kIntegrityMonitorPublisherServiceClsid, "integrity monitor publisher service",
           r, detail);
  return complete;
}

}  // namespace

int RunListCommand(const CommandLine& line) {
  ModuleLoader module;
  std::string error;
  if (!LoadModule(line, module, error)) return Fail(error);

  bool complete = true;
  {
    orn::RefPtr<Tracer> tracer;
    if (ORN_FAILED(CreateTracer(line.traceLevel, line.traceFile, tracer, error)))
      return Fail(error);
    auto locator = orn::MakeSimple<ServiceLocator>();
    locator->Register<orn::ITracer>(tracer.Get());
    locator->Register<orn::IAllocator>(orn::MakeSimple<Allocator>().Get());

    std::printf("module: %s\n", module.Path().c_str());
    std::printf("task factories (ornGetObjectFactory):\n");
    complete &= ListFactory(module, locator.Get(), pax::fim::kIntegrityMonitorTaskClsid,
                            "on-access integrity monitor task (OAFIM)");
    complete &= ListFactory(module, locator.Get(), pax::fim::kOnDemandIntegrityMonitorTaskClsid,
                            "on-demand integrity monitor task (ODFIM)");
    std::printf("objects (ornCreateObject):\n");
    complete &= ListPublisherService(module, locator.Get());
    locator->Clear();
  }
  const orn::result_t busy = module.CanUnloadModule()();
  std::printf("unloadable after release (ornCanUnloadModule): %s\n", busy == 0 ? "yes" : "no");
  std::fflush(stdout);
  return complete ? kExitOk : kExitIssues;
}

}  // namespace arvo::host
