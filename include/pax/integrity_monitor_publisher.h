// The module's own publisher service: the tasks publish detections to it and
// other components subscribe to receive them.
#pragma once

#include <array>
#include <cstdint>

#include "orn/iobject.h"
#include "orn/types.h"

namespace pax {

using Sha256Digest = std::array<std::uint8_t, 32>;

// Optional extra data attached to a detection (none in this module's events).
struct DetectEventExtra {
  orn::types::string8_t name;
  orn::types::string8_t data;
};

// Lives only for one PublishDetectEvent call; receivers copy what they keep.
struct DetectEvent {
  std::uint32_t detectType = 0;             // 0 on-access change, 1 object renamed/moved
  orn::types::string8_t path;               // object path (former path for kind 1)
  const Sha256Digest* digest = nullptr;     // kind 1 only
  const DetectEventExtra* extra = nullptr;  // always null here
};

class IIntegrityMonitorPublisher : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x1C2A6E6B);
  // Builds a DetectEvent and delivers it synchronously to every subscriber.
  // The result does not depend on the receivers'.
  virtual orn::result_t PublishDetectEvent(std::uint32_t detectType,
                                           const orn::types::string8_t& path,
                                           const Sha256Digest* digest,
                                           const DetectEventExtra* extra) = 0;

 protected:
  ~IIntegrityMonitorPublisher() = default;
};

}  // namespace pax

namespace mdr::agent {

// Implemented by subscribers. Must not throw (the process terminates).
// Interface id chosen by this project.
class IFileIntegrityMonitorDetectEvent : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x3B9D27E4);
  virtual orn::result_t OnDetectEvent(const pax::DetectEvent& event) = 0;

 protected:
  ~IFileIntegrityMonitorDetectEvent() = default;
};

class IFileIntegrityMonitorDetectEventSubscription : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x4C323CCB);
  virtual orn::result_t Subscribe(IFileIntegrityMonitorDetectEvent* receiver) = 0;
  // 0 released now; 1 a delivery to it is running (it may be called once
  // more); errors::kNotFound when not subscribed. Never waits.
  virtual orn::result_t Unsubscribe(IFileIntegrityMonitorDetectEvent* receiver) = 0;
  // As Unsubscribe, then waits until running deliveries to it have ended.
  // Must not be called from that receiver's own callback.
  virtual orn::result_t UnsubscribeAndWait(IFileIntegrityMonitorDetectEvent* receiver) = 0;

 protected:
  ~IFileIntegrityMonitorDetectEventSubscription() = default;
};

}  // namespace mdr::agent
