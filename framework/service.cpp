#include "framework/service.h"

namespace orn {

ObjectRootEx::ObjectRootEx(IServiceLocator* locator) {
  m_allocator = GetInterfaceOrThrow<IAllocator>(locator);
  (void)GetInterface(locator, m_tracer.Ref());
  m_serviceLocator = RefPtr<IServiceLocator>(locator);
}

}  // namespace orn
