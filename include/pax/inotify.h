// The host's recursive inotify service and the receivers it calls.
#pragma once

#include <cstdint>

#include "orn/iobject.h"
#include "orn/types.h"

namespace pax {

// One notification. Fields in this order are part of the contract.
struct InotifyEvent {
  orn::types::string8_t path;        // full path of the object concerned
  orn::types::string8_t formerPath;  // former path of a moved object, else empty
  orn::types::string8_t error;       // non-empty: an error report, not a change
  std::uint32_t mask = 0;            // a file modification type code
                                     // (pax::FileModificationType)
  bool isDirectory = false;
};

// Interface id chosen by this project.
class IInotifyEventsReceiver : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x2F0B6E51);
  // Called on the provider's delivery thread, never concurrently for one
  // provider. Must not throw. The result is informational.
  virtual orn::result_t OnEvent(const InotifyEvent& event) = 0;
  virtual orn::result_t GetName(orn::types::string8_t& name) const = 0;

 protected:
  ~IInotifyEventsReceiver() = default;
};

class IInotifyEventsProvider : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x4045A446);
  // Watches `directory` and its whole subtree for the inotify bits in `mask`
  // (IN_MODIFY, IN_ATTRIB, IN_MOVED_FROM, IN_MOVED_TO, IN_CREATE, IN_DELETE)
  // and calls receiver->OnEvent for each change. The provider keeps a
  // reference to the receiver until Unsubscribe. One receiver may subscribe
  // to several directories.
  virtual orn::result_t Subscribe(IInotifyEventsReceiver* receiver,
                                  const orn::types::string8_t& directory, std::uint32_t mask) = 0;
  // Drops every subscription of `receiver`. When it returns, no OnEvent call
  // to that receiver is running or will start (unless called from inside
  // that receiver's own OnEvent, where the running call is the last).
  virtual orn::result_t Unsubscribe(IInotifyEventsReceiver* receiver) = 0;

 protected:
  ~IInotifyEventsProvider() = default;
};

}  // namespace pax
