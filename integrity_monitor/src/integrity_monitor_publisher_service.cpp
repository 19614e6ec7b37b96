#include "integrity_monitor_publisher_service.h"

#include "named_value_records.h"
#include "orn/persistent_storage.h"

namespace pax {

IntegrityMonitorPublisherService::IntegrityMonitorPublisherService(orn::IAllocator* allocator)
    : EventDispatcher2(allocator) {}

orn::result_t IntegrityMonitorPublisherService::PublishDetectEvent(
    std::uint32_t detectType, const orn::types::string8_t& path, const Sha256Digest* digest,
    const DetectEventExtra* extra) {
  const DetectEvent event{detectType, path, digest, extra};
  Deliver([&event](mdr::agent::IFileIntegrityMonitorDetectEvent* receiver) {
    (void)receiver->OnDetectEvent(event);
  });
  return orn::errors::kOk;
}

orn::result_t CreateIntegrityMonitorPublisherService(orn::IServiceLocator* locator,
                                                     orn::IObject** out) {
  if (!out) return orn::errors::kInvalidArgument;
  *out = nullptr;
  orn::RefPtr<orn::IAllocator> allocator;
  (void)orn::GetInterface(locator, allocator.Ref());  // none: the process heap
  using Service = orn::Object<IntegrityMonitorPublisherService>;
  Service* service = Service::New(allocator.Get(), allocator.Get());

  // The serializer is optional: without one the records are simply unknown
  // to it, which no integrity event needs.
  orn::RefPtr<orn::IStorageSerializer2> serializer;
  if (ORN_SUCCEEDED(orn::GetInterface(locator, serializer.Ref())) && serializer)
    (void)RegisterNamedValueRecords(serializer.Get());

  *out = static_cast<IIntegrityMonitorPublisher*>(service);
  return orn::errors::kOk;
}

}  // namespace pax
