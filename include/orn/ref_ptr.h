// Counted reference holder. Owns exactly one reference to its pointee and
// releases it when reset or destroyed. Not thread-safe itself: one holder is
// used by one thread at a time, the object it points to may be shared.
#pragma once

#include <cstddef>
#include <utility>

#include "orn/iobject.h"

namespace orn {

template <class T>
class RefPtr {
 public:
  RefPtr() noexcept = default;
  RefPtr(std::nullptr_t) noexcept {}
  // Adds a reference to p.
  explicit RefPtr(T* p) noexcept : m_p(p) {
    if (m_p) m_p->AddRef();
  }
  RefPtr(const RefPtr& other) noexcept : RefPtr(other.m_p) {}
  RefPtr(RefPtr&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
  template <class U>
  RefPtr(const RefPtr<U>& other) noexcept : RefPtr(other.Get()) {}
  ~RefPtr() { Reset(); }

  RefPtr& operator=(const RefPtr& other) noexcept {
    RefPtr(other).Swap(*this);
    return *this;
  }
  RefPtr& operator=(RefPtr&& other) noexcept {
    RefPtr(std::move(other)).Swap(*this);
    return *this;
  }
  RefPtr& operator=(std::nullptr_t) noexcept {
    Reset();
    return *this;
  }

  // Takes over a reference the caller already owns (no AddRef).
  static RefPtr Adopt(T* p) noexcept {
    RefPtr r;
    r.m_p = p;
    return r;
  }
  // Gives up ownership without releasing.
  [[nodiscard]] T* Detach() noexcept { return std::exchange(m_p, nullptr); }

  void Reset() noexcept {
    if (T* p = std::exchange(m_p, nullptr)) p->Release();
  }
  void Swap(RefPtr& other) noexcept { std::swap(m_p, other.m_p); }

  // Out-parameter form: releases the current pointee and returns the slot
  // for a callee that stores an already added reference.
  T** Ref() noexcept {
    Reset();
    return &m_p;
  }
  // The same slot typed for QueryInterface-style calls.
  void** RefVoid() noexcept { return reinterpret_cast<void**>(Ref()); }

  T* Get() const noexcept { return m_p; }
  T* operator->() const noexcept { return m_p; }
  T& operator*() const noexcept { return *m_p; }
  explicit operator bool() const noexcept { return m_p != nullptr; }

  // Stores an added reference in *out (out may not be null).
  void CopyTo(T** out) const noexcept {
    if (m_p) m_p->AddRef();
    *out = m_p;
  }

 private:
  T* m_p = nullptr;
};

template <class T, class U>
bool operator==(const RefPtr<T>& a, const U* b) {
  return a.Get() == b;
}

// QueryInterface into a typed holder.
template <class T, class Source>
result_t QueryInterface(Source* source, RefPtr<T>& out) {
  if (!source) return errors::kInvalidArgument;
  return source->QueryInterface(IidOf<T>(), out.RefVoid());
}

}  // namespace orn
