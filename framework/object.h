// The module's object model: reference counts, the module lock, interface
// maps, objects allocated through the host allocator, and class factories.
//
// A class T lists the interfaces it answers, in the order of its bases:
//   class Task : public ITask, public IConstruct, public orn::ObjectRootEx {
//    public:
//     using Interfaces = orn::Ifaces<ITask, IConstruct>;
//     explicit Task(orn::IServiceLocator*);     // may throw
//     orn::result_t FinalConstruct();           // optional
//     void FinalRelease();                      // optional
//   };
// orn::Object<T> is the concrete object: it implements IObject for every
// interface of T with one atomic count, holds one unit of the module lock
// for its life, and frees itself through the allocator it came from.
#pragma once

#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

#include "framework/exceptions.h"
#include "orn/allocator.h"
#include "orn/iobject.h"
#include "orn/ref_ptr.h"
#include "orn/service_locator.h"

namespace orn {

// The process-wide count of live objects and factories of this module.
class ModuleLock {
 public:
  static void Lock() noexcept { Counter().fetch_add(1); }
  static void Unlock() noexcept { Counter().fetch_sub(1); }
  static std::uint32_t Count() noexcept { return Counter().load(); }

 private:
  static std::atomic<std::uint32_t>& Counter() noexcept;
};

// Base that holds one unit of the module lock while the object lives.
template <class T>
class ObjectModuleAutoLockTyped {
 protected:
  ObjectModuleAutoLockTyped() noexcept { ModuleLock::Lock(); }
  ~ObjectModuleAutoLockTyped() { ModuleLock::Unlock(); }
  ObjectModuleAutoLockTyped(const ObjectModuleAutoLockTyped&) = delete;
  ObjectModuleAutoLockTyped& operator=(const ObjectModuleAutoLockTyped&) = delete;
};

class NonCopyable {
 protected:
  NonCopyable() = default;
  ~NonCopyable() = default;
  NonCopyable(const NonCopyable&) = delete;
  NonCopyable& operator=(const NonCopyable&) = delete;
};

// Interface map: iid 0 and First's id answer the First sub-object.
template <class First, class... Rest>
struct Ifaces {
  template <class T>
  static void* Cast(T* self, iid_t iid) noexcept {
    if (iid == 0 || iid == First::kIid) return static_cast<First*>(self);
    void* p = nullptr;
    ((p == nullptr && iid == Rest::kIid ? (p = static_cast<Rest*>(self)) : nullptr), ...);
    return p;
  }
};

template <class T>
concept HasFinalConstruct = requires(T& t) {
  { t.FinalConstruct() } -> std::same_as<result_t>;
};
template <class T>
concept HasFinalRelease = requires(T& t) {
  t.FinalRelease();
};

template <class T>
class Object final : private ObjectModuleAutoLockTyped<T>, public T {
 public:
  template <class... Args>
  explicit Object(Args&&... args) : T(std::forward<Args>(args)...) {}

  std::uint32_t AddRef() override { return m_refs.fetch_add(1) + 1; }
  std::uint32_t Release() override {
    const std::uint32_t old = m_refs.fetch_sub(1);
    assert(old != 0 && "Release of a dead object");
    if (old == 0) std::abort();
    if (old == 1) Destroy(true);
    return old - 1;
  }
  result_t QueryInterface(iid_t iid, void** out) override {
    void* p = T::Interfaces::Cast(static_cast<T*>(this), iid);
    *out = p;
    if (!p) return errors::kNoInterface;
    AddRef();
    return errors::kOk;
  }

  // Allocates and constructs an object with a count of 1 through `allocator`
  // (the process heap when null). Exceptions of T's constructor propagate;
  // the memory is returned first.
  template <class... Args>
  static Object* New(IAllocator* allocator, Args&&... args) {
    void* mem = allocator ? allocator->Allocate(sizeof(Object))
                          : ::operator new(sizeof(Object), std::nothrow);
    if (!mem) throw std::bad_alloc();
    Object* obj = nullptr;
    try {
      obj = ::new (mem) Object(std::forward<Args>(args)...);
    } catch (...) {
      allocator ? allocator->Free(mem) : ::operator delete(mem);
      throw;
    }
    obj->m_memory = RefPtr<IAllocator>(allocator);
    return obj;
  }

  // Destroys an object whose construction did not complete (FinalConstruct
  // failed): no FinalRelease.
  void Abandon() { Destroy(false); }

 private:
  ~Object() = default;

  void Destroy(bool finalRelease) {
    if constexpr (HasFinalRelease<T>) {
      if (finalRelease) T::FinalRelease();
    }
    RefPtr<IAllocator> memory = std::move(m_memory);
    this->~Object();
    if (memory) {
      memory->Free(this);
    } else {
      ::operator delete(static_cast<void*>(this));
    }
  }

  std::atomic<std::uint32_t> m_refs{1};
  RefPtr<IAllocator> m_memory;
};

// Creates an Object<T> from constructor arguments (no FinalConstruct),
// through `allocator` or the heap. Exceptions are converted to a result
// (traced through `tracer`).
template <class T, class Iface = T, class... Args>
result_t CreateObject(IAllocator* allocator, ITracer* tracer, RefPtr<Iface>& out, Args&&... args) {
  try {
    Object<T>* obj = Object<T>::New(allocator, std::forward<Args>(args)...);
    out = RefPtr<Iface>::Adopt(static_cast<Iface*>(obj));
    return errors::kOk;
  } catch (...) {
    return ExceptionToResult(tracer, "Exception during object construction: ");
  }
}

// CreateInstance of a locator-built class T: allocator lookup, allocation,
// construction with the locator, FinalConstruct, QueryInterface.
template <class T>
result_t CreateLocatorObject(IServiceLocator* locator, iid_t iid, void** out) {
  *out = nullptr;
  RefPtr<IAllocator> allocator;
  const result_t ar = GetInterface(locator, allocator.Ref());
  if (ORN_FAILED(ar)) return ar;
  Object<T>* obj = nullptr;
  try {
    obj = Object<T>::New(allocator.Get(), locator);
    if constexpr (HasFinalConstruct<T>) {
      const result_t fr = obj->FinalConstruct();
      if (ORN_FAILED(fr)) {
        std::exchange(obj, nullptr)->Abandon();
        return fr;
      }
    }
  } catch (...) {
    if (obj) obj->Abandon();
    RefPtr<ITracer> tracer;
    (void)GetInterface(locator, tracer.Ref());
    return ExceptionToResult(tracer.Get(), "Exception during object construction: ");
  }
  const result_t qr = obj->QueryInterface(iid, out);
  obj->Release();
  return qr;
}

// The class factory of T. A factory object is a vtable and its count.
template <class T>
class GenericObjectFactory : public IObjectFactory {
 public:
  using Interfaces = Ifaces<IObjectFactory>;
  result_t CreateInstance(IServiceLocator* locator, iid_t iid, void** out) override {
    return CreateLocatorObject<T>(locator, iid, out);
  }
};

}  // namespace orn
