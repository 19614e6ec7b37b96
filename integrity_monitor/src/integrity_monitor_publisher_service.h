// The integrity monitor publisher service: the hub between the integrity
// monitor tasks, which publish detections to it, and the components that
// subscribe to receive them.
#pragma once

#include <cstdint>

#include "event_dispatcher.h"
#include "framework/object.h"
#include "orn/allocator.h"
#include "orn/service_locator.h"
#include "pax/integrity_monitor_publisher.h"

namespace pax {

// Thread-safe. Deliveries run synchronously on the publishing thread, with
// the subscription table unlocked around each receiver call (see
// orn::EventDispatcher2 for the unsubscription guarantees).
class IntegrityMonitorPublisherService
    : public IIntegrityMonitorPublisher,
      public orn::EventDispatcher2<mdr::agent::IFileIntegrityMonitorDetectEventSubscription,
                                   mdr::agent::IFileIntegrityMonitorDetectEvent>,
      private orn::NonCopyable {
 public:
  using Interfaces = orn::Ifaces<IIntegrityMonitorPublisher,
                                 mdr::agent::IFileIntegrityMonitorDetectEventSubscription>;

  // `allocator` (may be null: the process heap) backs the subscription table.
  explicit IntegrityMonitorPublisherService(orn::IAllocator* allocator);

  // Builds the detect event on the caller's stack and delivers it to every
  // subscriber. Always 0: receivers' results are ignored.
  orn::result_t PublishDetectEvent(std::uint32_t detectType, const orn::types::string8_t& path,
                                   const Sha256Digest* digest,
                                   const DetectEventExtra* extra) override;
};

// Creates the service with a count of 1 in *out, allocated through the
// locator's allocator when there is one (the heap otherwise), and registers
// the named-value records with the locator's serializer when one is offered.
// Throws std::bad_alloc when the service cannot be allocated; the module's
// entry point converts it.
orn::result_t CreateIntegrityMonitorPublisherService(orn::IServiceLocator* locator,
                                                     orn::IObject** out);

}  // namespace pax
