#include "host/services/service_locator.h"

namespace arvo::host {

orn::result_t ServiceLocator::GetService(orn::iid_t iid, orn::service_key_t key, void** out) {
  if (!out) return orn::errors::kInvalidArgument;
  *out = nullptr;
  orn::RefPtr<orn::IObject> service;
  {
    std::lock_guard lock(m_mutex);
    const auto it = m_services.find({iid, key});
    if (it == m_services.end()) return orn::errors::kNoInterface;
    service = it->second;
  }
  // Outside the lock: QueryInterface is foreign code.
  return service->QueryInterface(iid, out);
}

void ServiceLocator::Register(orn::iid_t iid, orn::service_key_t key, orn::IObject* service) {
  orn::RefPtr<orn::IObject> replaced(service);
  std::lock_guard lock(m_mutex);
  m_services[{iid, key}].Swap(replaced);
}

void ServiceLocator::Clear() {
  std::map<Key, orn::RefPtr<orn::IObject>> dropped;
  {
    std::lock_guard lock(m_mutex);
    dropped.swap(m_services);
  }
}

}  // namespace arvo::host
