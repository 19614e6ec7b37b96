// Reference-counted implementation of IObject for objects that live outside
// the module (host services, test doubles). Heap-allocated with new; deleted
// at the last Release. QueryInterface answers 0 (the first interface) and the
// id of every listed interface.
//
//   class Tracer final : public orn::SimpleObject<orn::ITracer> { ... };
//   orn::RefPtr<Tracer> t = orn::MakeSimple<Tracer>(args...);
#pragma once

#include <atomic>
#include <cassert>
#include <cstdint>
#include <utility>

#include "orn/iobject.h"
#include "orn/ref_ptr.h"

namespace orn {

template <class First, class... Rest>
class SimpleObject : public First, public Rest... {
 public:
  SimpleObject() = default;
  SimpleObject(const SimpleObject&) = delete;
  SimpleObject& operator=(const SimpleObject&) = delete;

  std::uint32_t AddRef() override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Release() override {
    const std::uint32_t old = m_refs.fetch_sub(1, std::memory_order_acq_rel);
    assert(old != 0 && "Release of a dead object");
    if (old == 1) delete this;
    return old - 1;
  }
  result_t QueryInterface(iid_t iid, void** out) override {
    void* p = nullptr;
    if (iid == 0 || iid == First::kIid) {
      p = static_cast<First*>(this);
    } else {
      ((p == nullptr && iid == Rest::kIid ? (p = static_cast<Rest*>(this)) : nullptr), ...);
    }
    *out = p;
    if (!p) return errors::kNoInterface;
    AddRef();
    return errors::kOk;
  }

 protected:
  virtual ~SimpleObject() = default;

 private:
  std::atomic<std::uint32_t> m_refs{1};
};

// Creates T (derived from SimpleObject) with a count of 1, owned by the result.
template <class T, class... Args>
RefPtr<T> MakeSimple(Args&&... args) {
  return RefPtr<T>::Adopt(new T(std::forward<Args>(args)...));
}

}  // namespace orn
