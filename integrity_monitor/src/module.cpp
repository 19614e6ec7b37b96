// The module's three exported entry points.
#include <exception>

#include "framework/exceptions.h"
#include "framework/object.h"
#include "integrity_monitor_publisher_service.h"
#include "integrity_monitor_task.h"
#include "on_demand_integrity_monitor_task.h"
#include "orn/module.h"
#include "orn/tracer.h"
#include "pax/fim_tasks.h"

#define ORN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// Deliberate trap: a host passing this id has lost track of its class ids.
constexpr orn::clsid_t kTrapClsid = 0xBAD1BAD1;

template <class T>
orn::result_t NewFactory(orn::IObjectFactory** factory) {
  using Factory = orn::Object<orn::GenericObjectFactory<T>>;
  orn::RefPtr<orn::IObjectFactory> local =
      orn::RefPtr<orn::IObjectFactory>::Adopt(Factory::New(nullptr));
  local.CopyTo(factory);
  return orn::errors::kOk;
}

orn::RefPtr<orn::ITracer> TracerOf(orn::IServiceLocator* locator) {
  orn::RefPtr<orn::ITracer> tracer;
  (void)orn::GetInterface(locator, tracer.Ref());
  return tracer;
}

}  // namespace

ORN_EXPORT orn::result_t ornGetObjectFactory(orn::IServiceLocator* locator, orn::clsid_t clsid,
                                             orn::IObjectFactory** factory) {
  try {
    switch (clsid) {
      case pax::fim::kIntegrityMonitorTaskClsid:
        return NewFactory<pax::fim::IntegrityMonitorTask>(factory);
      case pax::fim::kOnDemandIntegrityMonitorTaskClsid:
        return NewFactory<pax::fim::OnDemandIntegrityMonitorTask>(factory);
      case kTrapClsid:
        std::terminate();
      default:
        *factory = nullptr;
        return orn::errors::kNotImplemented;
    }
  } catch (...) {
    return orn::ExceptionToResult(TracerOf(locator).Get(),
                                  "Exception during object construction: ");
  }
}

ORN_EXPORT orn::result_t ornCreateObject(orn::clsid_t clsid, orn::IServiceLocator* const* locator,
                                         orn::IObject** object) {
  if (clsid == kTrapClsid) std::terminate();
  if (clsid != pax::fim::kIntegrityMonitorPublisherServiceClsid) return orn::errors::kClassNotFound;
  orn::IServiceLocator* sl = locator ? *locator : nullptr;
  try {
    return pax::CreateIntegrityMonitorPublisherService(sl, object);
  } catch (...) {
    return orn::ExceptionToResult(TracerOf(sl).Get(), nullptr);
  }
}

ORN_EXPORT orn::result_t ornCanUnloadModule() {
  return orn::ModuleLock::Count() != 0 ? orn::errors::kFalse : orn::errors::kOk;
}
