#include "host/watch/fanotify_scope.h"

#include <sys/fanotify.h>
#include <sys/inotify.h>

#include "pax/enumerations.h"

namespace arvo::host {

namespace modification = pax::modification;

std::uint64_t FanotifyScope::Add(pax::IInotifyEventsReceiver* receiver, const std::string& root,
                                 const std::string& realRoot, std::uint64_t fsid,
                                 std::uint32_t mask) {
  const std::uint64_t id = m_nextId++;
  m_subs.emplace(id, Subscription{orn::RefPtr<pax::IInotifyEventsReceiver>(receiver), root,
                                  realRoot, fsid, mask});
  return id;
}

std::vector<orn::RefPtr<pax::IInotifyEventsReceiver>> FanotifyScope::Remove(
    pax::IInotifyEventsReceiver* receiver) {
  std::vector<orn::RefPtr<pax::IInotifyEventsReceiver>> dropped;
  for (auto it = m_subs.begin(); it != m_subs.end();) {
    if (it->second.receiver.Get() == receiver) {
      dropped.push_back(std::move(it->second.receiver));
      it = m_subs.erase(it);
    } else {
      ++it;
    }
  }
  return dropped;
}

orn::RefPtr<pax::IInotifyEventsReceiver> FanotifyScope::ReceiverOf(
    std::uint64_t subscription) const {
  const auto it = m_subs.find(subscription);
  return it == m_subs.end() ? orn::RefPtr<pax::IInotifyEventsReceiver>() : it->second.receiver;
}

std::string FanotifyScope::Shown(const Subscription& sub, const std::string& realPath) {
  if (!IsAtOrBelow(realPath, sub.realRoot)) return {};
  if (sub.realRoot == "/") return sub.root == "/" ? realPath : sub.root + realPath;
  return sub.root + realPath.substr(sub.realRoot.size());
}

void FanotifyScope::Translate(const FanotifyRecord& record, FanotifyResolver& resolver,
                              std::vector<InotifyDelivery>& out) const {
  if (record.Overflow()) {
    EmitOverflow(out);
    return;
  }
  const std::optional<std::string> dir = resolver.PathOf(record.directory);
  if (!dir) return;  // a directory never seen and gone: nothing in scope can be named
  const std::string path = record.name == "." ? *dir : JoinPath(*dir, record.name);
  const bool isDirectory = (record.mask & FAN_ONDIR) != 0;
  if (record.mask & FAN_RENAME) {
    const std::optional<std::string> newDir = resolver.PathOf(record.newDirectory);
    const std::string to = newDir ? JoinPath(*newDir, record.newName) : std::string();
    if (isDirectory) resolver.Forget(path);
    TranslateRename(record, path, to, out);
    return;
  }
  if (isDirectory && (record.mask & (FAN_DELETE | FAN_MOVED_FROM))) resolver.Forget(path);
  const std::size_t first = out.size();
  // A record may merge several changes of one object; they are told in the
  // order they can happen.
  struct Kind {
    std::uint64_t fanBit;
    std::uint32_t code;
    std::uint32_t wanted;
  };
  static constexpr Kind kKinds[] = {
      {FAN_CREATE, modification::kObjectCreated, IN_CREATE},
      {FAN_MOVED_TO, modification::kObjectCreated, IN_MOVED_TO | IN_CREATE},
      {FAN_MODIFY, modification::kObjectContentChanged, IN_MODIFY},
      {FAN_ATTRIB, modification::kObjectAttributesChanged, IN_ATTRIB},
      {FAN_MOVED_FROM, modification::kObjectDeleted, IN_MOVED_FROM | IN_DELETE},
      {FAN_DELETE, modification::kObjectDeleted, IN_DELETE},
  };
  for (const auto& [id, sub] : m_subs) {
    std::string shown = Shown(sub, path);
    if (shown.empty()) continue;
    for (const Kind& kind : kKinds) {
      if (record.mask & kind.fanBit)
        Emit(id, sub, kind.code, kind.wanted, shown, {}, isDirectory, first, out);
    }
  }
}

// A rename seen whole: from and to in one record. Within one receiver's
// scope it is a rename (same directory) or a move; leaving the scope reads
// as a deletion, entering it as a creation.
void FanotifyScope::TranslateRename(const FanotifyRecord& record, const std::string& from,
                                    const std::string& to,
                                    std::vector<InotifyDelivery>& out) const {
  const bool isDirectory = (record.mask & FAN_ONDIR) != 0;
  const bool sameDirectory = record.directory == record.newDirectory;
  const std::size_t first = out.size();
  for (const auto& [id, sub] : m_subs) {
    const std::string shownTo = to.empty() ? std::string() : Shown(sub, to);
    std::string shownFrom = Shown(sub, from);
    if (shownTo.empty() && !shownFrom.empty()) {
      // Moved out of this subscription: another of the same receiver that
      // holds the destination tells it as a move.
      bool kept = false;
      for (const auto& [otherId, other] : m_subs) {
        kept = kept || (otherId != id && other.receiver.Get() == sub.receiver.Get() &&
                        !to.empty() && !Shown(other, to).empty());
      }
      if (!kept)
        Emit(id, sub, modification::kObjectDeleted, IN_MOVED_FROM | IN_DELETE, std::move(shownFrom),
             {}, isDirectory, first, out);
      continue;
    }
    if (shownTo.empty()) continue;
    if (shownFrom.empty()) {
      // Entered this subscription: from another of the same receiver it is a move.
      for (const auto& [otherId, other] : m_subs) {
        if (otherId != id && other.receiver.Get() == sub.receiver.Get() &&
            !(shownFrom = Shown(other, from)).empty())
          break;
      }
    }
    if (shownFrom.empty()) {
      Emit(id, sub, modification::kObjectCreated, IN_MOVED_TO | IN_CREATE, shownTo, {}, isDirectory,
           first, out);
    } else {
      const std::uint32_t code =
          sameDirectory ? modification::kObjectRenamed : modification::kObjectMoved;
      Emit(id, sub, code, IN_MOVED_FROM | IN_MOVED_TO, shownTo, std::move(shownFrom), isDirectory,
           first, out);
    }
  }
}

void FanotifyScope::Emit(std::uint64_t id, const Subscription& sub, std::uint32_t code,
                         std::uint32_t wantedBits, std::string path, std::string formerPath,
                         bool isDirectory, std::size_t first,
                         std::vector<InotifyDelivery>& out) const {
  if ((sub.mask & wantedBits) == 0) return;
  // A receiver with overlapping subscriptions is told once per record.
  for (std::size_t i = first; i < out.size(); ++i) {
    const pax::InotifyEvent& e = out[i].event;
    if (e.mask == code && e.path == path && e.formerPath == formerPath &&
        ReceiverOf(out[i].subscription).Get() == sub.receiver.Get()) {
      return;
    }
  }
  InotifyDelivery delivery;
  delivery.subscription = id;
  delivery.event.path = std::move(path);
  delivery.event.formerPath = std::move(formerPath);
  delivery.event.mask = code;
  delivery.event.isDirectory = isDirectory;
  out.push_back(std::move(delivery));
}

void FanotifyScope::EmitUnmounted(std::uint64_t fsid, std::vector<InotifyDelivery>& out) const {
  for (const auto& [id, sub] : m_subs) {
    if (sub.fsid != fsid) continue;
    InotifyDelivery delivery;
    delivery.subscription = id;
    delivery.event.path = sub.root;
    delivery.event.error = "file system unmounted: changes are no longer seen under " + sub.root;
    out.push_back(std::move(delivery));
  }
}

void FanotifyScope::EmitOverflow(std::vector<InotifyDelivery>& out) const {
  for (const auto& [id, sub] : m_subs) {
    InotifyDelivery delivery;
    delivery.subscription = id;
    delivery.event.path = sub.root;
    delivery.event.error = "fanotify queue overflow: events were lost under " + sub.root;
    out.push_back(std::move(delivery));
  }
}

}  // namespace arvo::host
