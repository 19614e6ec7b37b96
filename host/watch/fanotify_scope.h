// The subscriptions of the fanotify provider, and the translation of one
// fanotify record into the events each receiver is given.
//
// fanotify watches whole file systems, so scope is decided here, in user
// space: an event is delivered to a subscription when its path is the
// subscription's root or lies below it. A root reached through a symbolic
// link is matched by the directory it resolves to and reported under the
// path it was subscribed with. Events carry the same meaning as the inotify
// provider's (pax::modification codes, formerPath for moves, an error event
// for lost records) and are filtered by the same subscription masks.
//
// Not thread-safe: the provider serialises every call with its own mutex.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/watch/fanotify_record.h"
#include "host/watch/fanotify_resolver.h"
#include "host/watch/inotify_watch_tree.h"
#include "orn/ref_ptr.h"
#include "pax/inotify.h"

namespace arvo::host {

class FanotifyScope {
 public:
  // Adds a subscription of `receiver` to the tree at `root` (as given) whose
  // directory resolves to `realRoot`. Returns its id.
  std::uint64_t Add(pax::IInotifyEventsReceiver* receiver, const std::string& root,
                    const std::string& realRoot, std::uint64_t fsid, std::uint32_t mask);
  // Drops every subscription of `receiver`; returns the references it held,
  // for the caller to release outside its lock.
  std::vector<orn::RefPtr<pax::IInotifyEventsReceiver>> Remove(
      pax::IInotifyEventsReceiver* receiver);
  orn::RefPtr<pax::IInotifyEventsReceiver> ReceiverOf(std::uint64_t subscription) const;
  bool Empty() const { return m_subs.empty(); }

  // Appends the events `record` means, in order. Directory paths come from
  // `resolver`, which learns of directories moved or deleted.
  void Translate(const FanotifyRecord& record, FanotifyResolver& resolver,
                 std::vector<InotifyDelivery>& out) const;
  // Appends an error event for each subscription on file system `fsid`,
  // which was unmounted.
  void EmitUnmounted(std::uint64_t fsid, std::vector<InotifyDelivery>& out) const;

 private:
  struct Subscription {
    orn::RefPtr<pax::IInotifyEventsReceiver> receiver;
    std::string root;      // as subscribed: events are reported under it
    std::string realRoot;  // what it resolves to: events are matched against it
    std::uint64_t fsid = 0;
    std::uint32_t mask = 0;
  };

  // `realPath` as seen from `sub`, or empty when it is out of its scope.
  static std::string Shown(const Subscription& sub, const std::string& realPath);
  void TranslateRename(const FanotifyRecord& record, const std::string& from, const std::string& to,
                       std::vector<InotifyDelivery>& out) const;
  void Emit(std::uint64_t id, const Subscription& sub, std::uint32_t code, std::uint32_t wantedBits,
            std::string path, std::string formerPath, bool isDirectory, std::size_t first,
            std::vector<InotifyDelivery>& out) const;
  void EmitOverflow(std::vector<InotifyDelivery>& out) const;

  std::map<std::uint64_t, Subscription> m_subs;  // in subscription order
  std::uint64_t m_nextId = 1;
};

}  // namespace arvo::host
