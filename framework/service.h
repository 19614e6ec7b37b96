// Provider mix-ins that hold an object's allocator, tracer and locator, and
// the throwing form of service lookup used in constructors.
#pragma once

#include "framework/exceptions.h"
#include "orn/allocator.h"
#include "orn/ref_ptr.h"
#include "orn/service_locator.h"
#include "orn/tracer.h"

namespace orn {

// Throwing form: throws GetInterfaceException on failure.
template <class T>
RefPtr<T> GetInterfaceOrThrow(IServiceLocator* locator, service_key_t key = 0) {
  RefPtr<T> p;
  const result_t r =
      locator ? locator->GetService(IidOf<T>(), key, p.RefVoid()) : errors::kNoInterface;
  if (ORN_FAILED(r) || !p)
    throw GetInterfaceException(IidOf<T>(), key, ORN_FAILED(r) ? r : errors::kNoInterface);
  return p;
}

class AllocatorProvider {
 public:
  IAllocator* GetAllocator() const { return m_allocator.Get(); }

 protected:
  RefPtr<IAllocator> m_allocator;
};

class TracerProvider {
 public:
  ITracer* GetTracer() const { return m_tracer.Get(); }

 protected:
  TracerProvider() = default;
  explicit TracerProvider(ITracer* tracer) : m_tracer(tracer) {}
  RefPtr<ITracer> m_tracer;
};

class ServiceLocatorProvider {
 public:
  IServiceLocator* GetServiceLocator() const { return m_serviceLocator.Get(); }

 protected:
  RefPtr<IServiceLocator> m_serviceLocator;
};

// Base of objects built with a service locator. At construction, in order:
// the allocator (throwing form: no allocator, no object), the tracer
// (returning form: a missing tracer silences the object), the locator.
class ObjectRootEx : public AllocatorProvider,
                     public TracerProvider,
                     public ServiceLocatorProvider {
 public:
  explicit ObjectRootEx(IServiceLocator* locator);

  // Object model hooks; a class hides them with its own.
  result_t FinalConstruct() { return errors::kOk; }
  void FinalRelease() {}
};

}  // namespace orn
