// The host's service locator: a registry of service objects keyed by
// (interface id, service key).
#pragma once

#include <map>
#include <mutex>
#include <utility>

#include "orn/ref_ptr.h"
#include "orn/service_locator.h"
#include "orn/simple_object.h"

namespace arvo::host {

// Thread-safe: module objects look services up from any thread while the
// host registers. The registry holds one reference per entry; a lookup
// answers with QueryInterface(iid) on the registered object, so one object
// registered under several interfaces hands out the right sub-object each
// time.
//
// Services that keep a reference to the locator (the module's publisher
// service) form a cycle with it: the owner calls Clear() at shutdown before
// releasing its own reference.
class ServiceLocator final : public orn::SimpleObject<orn::IServiceLocator> {
 public:
  // (iid, key) not registered: *out = null, errors::kNoInterface.
  orn::result_t GetService(orn::iid_t iid, orn::service_key_t key, void** out) override;

  // Registers (or replaces) the provider of (iid, key). `service` must answer
  // QueryInterface(iid).
  void Register(orn::iid_t iid, orn::service_key_t key, orn::IObject* service);
  template <class T>
  void Register(T* service, orn::service_key_t key = 0) {
    Register(orn::IidOf<T>(), key, service);
  }
  // Drops every entry. The references are released after the lock is given
  // up, so a service's destructor may call back into the locator.
  void Clear();

 private:
  using Key = std::pair<orn::iid_t, orn::service_key_t>;
  std::mutex m_mutex;
  std::map<Key, orn::RefPtr<orn::IObject>> m_services;  // guarded by m_mutex
};

}  // namespace arvo::host
