// The module's three exported entry points (C linkage).
#pragma once

#include "orn/iobject.h"
#include "orn/service_locator.h"

extern "C" {
// Factory of a task class; errors::kNotImplemented and *factory = null for
// an unknown class.
orn::result_t ornGetObjectFactory(orn::IServiceLocator* locator, orn::clsid_t clsid,
                                  orn::IObjectFactory** factory);
// An object created directly (the publisher service); errors::kClassNotFound
// for any other class, *object untouched.
orn::result_t ornCreateObject(orn::clsid_t clsid, orn::IServiceLocator* const* locator,
                              orn::IObject** object);
// 0 when no object or factory of the module is alive, 1 otherwise.
orn::result_t ornCanUnloadModule();
}

namespace orn {
using GetObjectFactoryFn = decltype(&ornGetObjectFactory);
using CreateObjectFn = decltype(&ornCreateObject);
using CanUnloadModuleFn = decltype(&ornCanUnloadModule);
}  // namespace orn
