#include "host/watch/inotify_watch_tree.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "framework/check.h"
#include "framework/trace.h"
#include "host/watch/inotify_limits.h"
#include "pax/enumerations.h"

namespace arvo::host {
namespace {

namespace mod = pax::modification;

constexpr int kDirectoryOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool IsDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

bool IsDirectoryEntry(int dirFd, const struct dirent64* entry) {
  if (entry->d_type == DT_DIR) return true;
  if (entry->d_type != DT_UNKNOWN) return false;
  struct stat st;
  return ::fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

// Failures a walk meets when the tree changes under it, or on a bind mount
// that would loop: expected, so not traced.
bool IsExpectedSkip(int err) { return err == ENOENT || err == ENOTDIR || err == ELOOP; }

std::string NormalizeRoot(std::string root) {
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root;
}

}  // namespace

std::string JoinPath(const std::string& dir, const std::string& name) {
  std::string path;
  path.reserve(dir.size() + name.size() + 1);
  path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  path += name;
  return path;
}

ScopedFd OpenDirectory(const std::string& path, bool followLink) {
  const int lastFlags = kDirectoryOpenFlags | (followLink ? 0 : O_NOFOLLOW);
  if (path.size() < PATH_MAX) return ScopedFd(::open(path.c_str(), lastFlags));
  ScopedFd dir(::open(path[0] == '/' ? "/" : ".", kDirectoryOpenFlags));
  std::size_t pos = 0;
  while (dir.Valid()) {
    pos = path.find_first_not_of('/', pos);
    if (pos == std::string::npos) break;
    std::size_t end = path.find('/', pos);
    if (end == std::string::npos) end = path.size();
    const std::string name = path.substr(pos, end - pos);
    const bool last = path.find_first_not_of('/', end) == std::string::npos;
    ScopedFd next(::openat(dir.Get(), name.c_str(), last ? lastFlags : kDirectoryOpenFlags));
    if (!next.Valid()) return next;
    dir = std::move(next);
    pos = end;
  }
  return dir;
}

int InotifyRegistrar::AddWatch(int dirFd, const std::string& path, bool followLink) {
  int wd;
  if (path.size() < PATH_MAX) {
    wd = ::inotify_add_watch(m_fd, path.c_str(), kWatchMask | (followLink ? 0 : IN_DONT_FOLLOW));
  } else {
    // Too long for the kernel to resolve: watch the open directory itself.
    char procPath[64];
    std::snprintf(procPath, sizeof procPath, "/proc/self/fd/%d", dirFd);
    wd = ::inotify_add_watch(m_fd, procPath, kWatchMask);
  }
  return wd >= 0 ? wd : -errno;
}

void InotifyRegistrar::RemoveWatch(int wd) { (void)::inotify_rm_watch(m_fd, wd); }

InotifyWatchTree::InotifyWatchTree(IWatchRegistrar& registrar, orn::ITracer* tracer)
    : m_registrar(registrar), m_tracer(tracer) {}

InotifyWatchTree::~InotifyWatchTree() {
  // The instance goes with the provider: its watches need no removal.
  m_byWd.clear();
  for (auto& [id, sub] : m_subs) DestroyTree(std::move(sub->top));
}

orn::result_t InotifyWatchTree::Subscribe(pax::IInotifyEventsReceiver* receiver,
                                          const std::string& root, std::uint32_t mask,
                                          std::size_t* directories) {
  const std::string path = NormalizeRoot(root);
  ScopedFd fd = OpenDirectory(path, true);
  if (!fd.Valid()) {
    return ORN_CHECK_AS(m_tracer, orn::ResultFromErrno(errno), "OpenDirectory(path, true)",
                        "inotify\tCannot watch '" << path << "'");
  }
  const std::uint64_t id = m_nextId++;
  auto owned = std::make_unique<Subscription>();
  Subscription& sub = *owned;
  sub.id = id;
  sub.receiver = orn::RefPtr<pax::IInotifyEventsReceiver>(receiver);
  sub.root = path;
  sub.mask = mask;
  sub.top = std::make_unique<Node>();
  sub.top->sub = &sub;
  sub.top->name = path;
  m_subs.emplace(id, std::move(owned));

  m_walked = 0;
  const int err = Walk(sub.top.get(), std::move(fd), path, nullptr);
  // Past the limit part of the area stays unwatched: noted by the walk, and
  // better than not watching the area at all.
  if (err != 0 && !(err == ENOSPC && sub.top->wd >= 0)) {
    DestroyTree(std::move(sub.top));
    m_subs.erase(id);
    const orn::result_t r = orn::ResultFromErrno(err);
    if (err == ENOSPC) return r;  // the walk traced the limit
    return ORN_CHECK_AS(m_tracer, r, "Walk(top, fd, path)",
                        "inotify\tCannot watch '" << path << "'");
  }
  if (directories) *directories = m_walked;
  return orn::errors::kOk;
}

std::vector<orn::RefPtr<pax::IInotifyEventsReceiver>> InotifyWatchTree::Unsubscribe(
    pax::IInotifyEventsReceiver* receiver) {
  std::vector<orn::RefPtr<pax::IInotifyEventsReceiver>> dropped;
  for (auto it = m_subs.begin(); it != m_subs.end();) {
    if (it->second->receiver.Get() != receiver) {
      ++it;
      continue;
    }
    DestroyTree(std::move(it->second->top));
    dropped.push_back(std::move(it->second->receiver));
    it = m_subs.erase(it);
  }
  return dropped;
}

orn::RefPtr<pax::IInotifyEventsReceiver> InotifyWatchTree::ReceiverOf(
    std::uint64_t subscription) const {
  const auto it = m_subs.find(subscription);
  return it == m_subs.end() ? nullptr : it->second->receiver;
}

int InotifyWatchTree::Walk(Node* top, ScopedFd fd, const std::string& path,
                           std::vector<Found>* found) {
  const std::uint64_t generation = ++m_generation;
  if (const int err = WatchDirectory(top, fd.Get(), path); err != 0) return err;
  top->seen = generation;
  struct Frame {
    Node* node;
    ScopedFd fd;
    std::string path;
    std::vector<std::string> subdirectories;
    std::size_t next = 0;
    bool complete = false;  // every entry was read: absent children may be pruned
  };
  std::vector<Frame> stack;
  stack.push_back({top, std::move(fd), path, {}, 0, false});
  stack.back().complete =
      ReadEntries(stack.back().fd.Get(), path, stack.back().subdirectories, found);
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.next == frame.subdirectories.size()) {
      if (frame.complete) Prune(frame.node, generation);
      stack.pop_back();
      continue;
    }
    const std::string& name = frame.subdirectories[frame.next++];
    std::string childPath = JoinPath(frame.path, name);
    ScopedFd childFd(::openat(frame.fd.Get(), name.c_str(), kDirectoryOpenFlags | O_NOFOLLOW));
    if (!childFd.Valid()) {
      NoteSkipped(errno, childPath);
      continue;
    }
    Node* child = ChildOf(frame.node, name);
    if (const int err = WatchDirectory(child, childFd.Get(), childPath); err != 0) {
      RemoveChild(frame.node, name);
      if (err == ENOSPC) return err;
      NoteSkipped(err, childPath);
      continue;
    }
    child->seen = generation;
    Frame next{child, std::move(childFd), std::move(childPath), {}, 0, false};
    next.complete = ReadEntries(next.fd.Get(), next.path, next.subdirectories, found);
    stack.push_back(std::move(next));  // `frame` and `name` are invalid from here
  }
  return 0;
}

// Reads a whole directory with one shared buffer before the walk descends,
// so that only the open descriptors, not buffers, grow with the depth.
bool InotifyWatchTree::ReadEntries(int fd, const std::string& path,
                                   std::vector<std::string>& subdirectories,
                                   std::vector<Found>* found) {
  if (m_dirBuffer.empty()) m_dirBuffer.resize(64 * 1024);
  for (;;) {
    const ssize_t n = ::getdents64(fd, m_dirBuffer.data(), m_dirBuffer.size());
    if (n == 0) return true;
    if (n < 0) {
      NoteSkipped(errno, path);
      return false;
    }
    for (ssize_t at = 0; at < n;) {
      const auto* entry = reinterpret_cast<const struct dirent64*>(m_dirBuffer.data() + at);
      at += entry->d_reclen;
      if (IsDotOrDotDot(entry->d_name)) continue;
      const bool isDirectory = IsDirectoryEntry(fd, entry);
      if (found) found->push_back({JoinPath(path, entry->d_name), isDirectory});
      if (isDirectory) subdirectories.emplace_back(entry->d_name);
    }
  }
}

int InotifyWatchTree::WatchDirectory(Node* node, int fd, const std::string& path) {
  // Only a subscription's root may be reached through a link (it was opened
  // following it); every directory below was opened without following.
  const int wd = m_registrar.AddWatch(fd, path, node->parent == nullptr);
  if (wd < 0) {
    if (-wd == ENOSPC) {
      (void)ORN_CHECK_AS(
          m_tracer, orn::ResultFromErrno(ENOSPC), "inotify_add_watch(fd, path, mask)",
          "inotify\t" << WatchLimitMessage(path, ReadInotifyLimit(kMaxUserWatchesFile)));
      Notice(CoverageReason::kWatchLimit, path);
    }
    return -wd;
  }
  // A bind mount can show a directory inside itself; descending would loop.
  for (const Node* n = node->parent; n; n = n->parent) {
    if (n->wd == wd) return ELOOP;
  }
  Attach(node, wd);
  ++m_walked;
  return 0;
}

std::string InotifyWatchTree::PathOf(const Node* node) {
  std::vector<const Node*> chain;
  for (const Node* n = node; n; n = n->parent) chain.push_back(n);
  std::string path = chain.back()->name;
  for (auto it = chain.rbegin() + 1; it != chain.rend(); ++it) {
    if (path.empty() || path.back() != '/') path += '/';
    path += (*it)->name;
  }
  return path;
}

InotifyWatchTree::Node* InotifyWatchTree::FirstNodeOf(int wd, const Subscription* sub) const {
  const auto it = m_byWd.find(wd);
  if (it == m_byWd.end()) return nullptr;
  for (Node* node : it->second) {
    if (node->sub == sub) return node;
  }
  return nullptr;
}

bool InotifyWatchTree::HasSiblings(const Subscription& sub) const {
  return std::any_of(m_subs.begin(), m_subs.end(), [&](const auto& entry) {
    return entry.second.get() != &sub && entry.second->receiver.Get() == sub.receiver.Get();
  });
}

InotifyWatchTree::Node* InotifyWatchTree::ChildOf(Node* parent, const std::string& name) {
  std::unique_ptr<Node>& slot = parent->children[name];
  if (!slot) {
    slot = std::make_unique<Node>();
    slot->sub = parent->sub;
    slot->parent = parent;
    slot->name = name;
  }
  return slot.get();
}

void InotifyWatchTree::Attach(Node* node, int wd) {
  if (node->wd == wd) return;
  Unindex(node);
  node->wd = wd;
  m_byWd[wd].push_back(node);
}

void InotifyWatchTree::Unindex(Node* node) {
  const int wd = std::exchange(node->wd, -1);
  if (wd < 0) return;
  const auto it = m_byWd.find(wd);
  if (it == m_byWd.end()) return;
  std::vector<Node*>& nodes = it->second;
  nodes.erase(std::remove(nodes.begin(), nodes.end(), node), nodes.end());
  if (!nodes.empty()) return;
  m_byWd.erase(it);
  m_registrar.RemoveWatch(wd);  // harmless when the kernel dropped it already
}

void InotifyWatchTree::Prune(Node* node, std::uint64_t generation) {
  for (auto it = node->children.begin(); it != node->children.end();) {
    if (it->second->seen == generation) {
      ++it;
      continue;
    }
    std::unique_ptr<Node> gone = std::move(it->second);
    it = node->children.erase(it);
    DestroyTree(std::move(gone));
  }
}

void InotifyWatchTree::RemoveChild(Node* parent, const std::string& name) {
  const auto it = parent->children.find(name);
  if (it == parent->children.end()) return;
  std::unique_ptr<Node> gone = std::move(it->second);
  parent->children.erase(it);
  DestroyTree(std::move(gone));
}

void InotifyWatchTree::RemoveNode(Node* node) {
  if (node->parent) {
    RemoveChild(node->parent, node->name);
  } else {
    DestroyTree(std::move(node->sub->top));
  }
}

// Iterative: trees grow one level per created directory, deeper than the
// stack would allow a recursive destruction.
void InotifyWatchTree::DestroyTree(std::unique_ptr<Node> node) {
  std::vector<std::unique_ptr<Node>> pending;
  if (node) pending.push_back(std::move(node));
  while (!pending.empty()) {
    std::unique_ptr<Node> current = std::move(pending.back());
    pending.pop_back();
    for (auto& [name, child] : current->children) pending.push_back(std::move(child));
    current->children.clear();
    Unindex(current.get());
  }
}

void InotifyWatchTree::NoteSkipped(int err, const std::string& path) {
  if (IsExpectedSkip(err)) return;
  ORN_TRACE(m_tracer, orn::kTraceLevelWarning)
      << "inotify\tNot watching '" << path << "': " << orn::TraceResult{orn::ResultFromErrno(err)};
  if (err != ENOSPC) Notice(CoverageReason::kUnreadable, path);  // the limit noted itself
}

void InotifyWatchTree::Notice(CoverageReason reason, const std::string& path) {
  CoverageNotice notice{AreaOf(path), reason, path};
  for (const CoverageNotice& n : m_notices)
    if (n.area == notice.area && n.reason == reason && n.path == path) return;
  m_notices.push_back(std::move(notice));
}

// The innermost subscription root holding `path` (`path` when none does).
std::string InotifyWatchTree::AreaOf(const std::string& path) const {
  const std::string* best = nullptr;
  for (const auto& [id, sub] : m_subs) {
    const std::string& root = sub->root;
    const bool inside = path.compare(0, root.size(), root) == 0 &&
                        (path.size() == root.size() || root == "/" || path[root.size()] == '/');
    if (inside && (!best || root.size() > best->size())) best = &root;
  }
  return best ? *best : path;
}

void InotifyWatchTree::Translate(const RawInotifyEvent& raw, std::vector<InotifyDelivery>& out) {
  const std::size_t first = out.size();
  if (raw.mask & IN_Q_OVERFLOW) {
    HandleOverflow(out);
    return;
  }
  if (raw.IsJoinedMove()) {
    HandleMove(raw, first, out);
    return;
  }
  const auto it = m_byWd.find(raw.wd);
  if (it == m_byWd.end()) return;  // a watch dropped while its records were queued
  const std::vector<Node*> nodes = it->second;
  for (Node* node : nodes) {
    // Handling one node may drop another of the same watch.
    const auto live = m_byWd.find(raw.wd);
    if (live == m_byWd.end() ||
        std::find(live->second.begin(), live->second.end(), node) == live->second.end()) {
      continue;
    }
    HandleOnNode(node, raw, first, out);
  }
}

void InotifyWatchTree::HandleOnNode(Node* node, const RawInotifyEvent& raw, std::size_t first,
                                    std::vector<InotifyDelivery>& out) {
  if (raw.mask & IN_IGNORED) {  // the kernel dropped the watch: directory or file system gone
    Subscription& sub = *node->sub;
    Node* parent = node->parent;
    const std::string name = node->name;
    const bool unmounted = node->unmounted;
    RemoveNode(node);
    // After an unmount the mount point's own directory shows through: watch it.
    if (unmounted && parent) WatchNew(parent, name, 0, first, out);
    if (unmounted && !parent) Rewatch(sub);
    if (!parent && !sub.top) Notice(CoverageReason::kRootGone, sub.root);
    return;
  }
  if (raw.name.empty()) {
    HandleSelf(node, raw, first, out);
    return;
  }
  Subscription& sub = *node->sub;
  const bool isDirectory = raw.mask & IN_ISDIR;
  std::string path = JoinPath(PathOf(node), raw.name);
  if (raw.mask & (IN_CREATE | IN_MOVED_TO)) {
    // Already reported, and watched if a directory, by a catch-up walk.
    if (sub.caughtUp.erase(path) != 0) return;
    // A move into the tree is a creation as far as the tree can tell.
    const std::uint32_t bits = (raw.mask & IN_CREATE) ? IN_CREATE : IN_MOVED_TO | IN_CREATE;
    Emit(sub, mod::kObjectCreated, bits, std::move(path), {}, isDirectory, first, out);
    if (isDirectory) WatchNew(node, raw.name, bits, first, out);
  } else if (raw.mask & (IN_DELETE | IN_MOVED_FROM)) {
    ForgetCaughtUp(sub, path, isDirectory);  // a later creation under this name is a new one
    const std::uint32_t bits = (raw.mask & IN_DELETE) ? IN_DELETE : IN_MOVED_FROM | IN_DELETE;
    Emit(sub, mod::kObjectDeleted, bits, std::move(path), {}, isDirectory, first, out);
    if (isDirectory) RemoveChild(node, raw.name);
  } else if (raw.mask & IN_MODIFY) {
    Emit(sub, mod::kObjectContentChanged, IN_MODIFY, std::move(path), {}, isDirectory, first, out);
  } else if (raw.mask & IN_ATTRIB) {
    Emit(sub, mod::kObjectAttributesChanged, IN_ATTRIB, std::move(path), {}, isDirectory, first,
         out);
  }
}

// Records about a watched directory itself. A subdirectory's own changes are
// also reported, with its name, by its parent's watch: only a subscription's
// root has no other witness.
void InotifyWatchTree::HandleSelf(Node* node, const RawInotifyEvent& raw, std::size_t first,
                                  std::vector<InotifyDelivery>& out) {
  if (raw.mask & IN_UNMOUNT) node->unmounted = true;  // IN_IGNORED follows
  if (node->parent) return;
  Subscription& sub = *node->sub;
  const std::string root = node->name;
  if (raw.mask & IN_ATTRIB) {
    Emit(sub, mod::kObjectAttributesChanged, IN_ATTRIB, root, {}, true, first, out);
  } else if (raw.mask & IN_DELETE_SELF) {  // IN_IGNORED follows and drops the node
    Emit(sub, mod::kObjectDeleted, IN_DELETE, root, {}, true, first, out);
  } else if (raw.mask & IN_MOVE_SELF) {
    // Where it went is unknown, so the paths under it would be wrong.
    Emit(sub, mod::kObjectDeleted, IN_MOVED_FROM | IN_DELETE, root, {}, true, first, out);
    ORN_TRACE(m_tracer, orn::kTraceLevelWarning)
        << "inotify\tWatched directory '" << root << "' was moved away: no longer watched";
    RemoveNode(node);
    Notice(CoverageReason::kRootGone, root);
  } else if (raw.mask & IN_UNMOUNT) {
    EmitError(sub,
              "file system of a watched directory was unmounted: " + root +
                  " (its mount point is watched instead)",
              out);
  }
}

// A receiver is told of one move, not of a creation and a deletion, when
// the object leaves one of its subscriptions' trees for another (cookies
// belong to the inotify instance, which every subscription shares). A
// receiver that watches only one side sees a creation or a deletion.
void InotifyWatchTree::HandleMove(const RawInotifyEvent& raw, std::size_t first,
                                  std::vector<InotifyDelivery>& out) {
  const bool isDirectory = raw.mask & IN_ISDIR;
  std::vector<MovePlan> plans;
  for (auto& [id, sub] : m_subs) {
    Node* from = FirstNodeOf(raw.wd, sub.get());
    Node* to = FirstNodeOf(raw.toWd, sub.get());
    if (!from && !to) continue;
    plans.push_back({sub.get(), from, to, from ? JoinPath(PathOf(from), raw.name) : std::string(),
                     to ? JoinPath(PathOf(to), raw.toName) : std::string()});
  }
  // Records repeating what a catch-up walk found under the former name came
  // before this one: a later record about that name is a new change.
  for (const MovePlan& plan : plans) {
    if (plan.from) ForgetCaughtUp(*plan.sub, plan.formerPath, isDirectory);
  }
  // Destinations first: a directory moving from one subscription's tree into
  // another's keeps its kernel watch instead of losing and regaining it.
  for (const MovePlan& plan : plans) {
    if (plan.to) MoveIn(plan, SourceFor(plans, plan), raw, first, out);
  }
  for (const MovePlan& plan : plans) {
    if (!plan.from || plan.to) continue;
    if (!HasDestinationFor(plans, plan)) {
      Emit(*plan.sub, mod::kObjectDeleted, IN_MOVED_FROM | IN_DELETE, plan.formerPath, {},
           isDirectory, first, out);
    }
    if (isDirectory) RemoveChild(plan.from, raw.name);
  }
}

// The destination side of a joined move for one subscription; `source` is
// the plan (this one or another of the same receiver) that saw it leave.
void InotifyWatchTree::MoveIn(const MovePlan& plan, const MovePlan* source,
                              const RawInotifyEvent& raw, std::size_t first,
                              std::vector<InotifyDelivery>& out) {
  Subscription& sub = *plan.sub;
  const bool isDirectory = raw.mask & IN_ISDIR;
  // When a catch-up walk found the object under its new name, no record
  // repeating that is still queued: a later record about the name is new.
  const bool caughtUp = sub.caughtUp.erase(plan.path) != 0;
  if (!source) {
    // Already reported, and watched if a directory, by a catch-up walk.
    if (caughtUp) return;
    Emit(sub, mod::kObjectCreated, IN_MOVED_TO | IN_CREATE, plan.path, {}, isDirectory, first, out);
    if (isDirectory) WatchNew(plan.to, raw.toName, IN_MOVED_TO | IN_CREATE, first, out);
    return;
  }
  const std::uint32_t code = plan.from == plan.to ? mod::kObjectRenamed : mod::kObjectMoved;
  Emit(sub, code, IN_MOVED_FROM | IN_MOVED_TO, plan.path, source->formerPath, isDirectory, first,
       out);
  if (!isDirectory) return;
  if (plan.from) {
    Relink(plan.from, raw.name, plan.to, raw.toName, first, out);
  } else {
    WatchNew(plan.to, raw.toName, 0, first, out);  // its entries moved with it: nothing is new
  }
}

const InotifyWatchTree::MovePlan* InotifyWatchTree::SourceFor(const std::vector<MovePlan>& plans,
                                                              const MovePlan& plan) {
  if (plan.from) return &plan;
  for (const MovePlan& other : plans) {
    if (other.from && other.sub->receiver.Get() == plan.sub->receiver.Get()) return &other;
  }
  return nullptr;
}

bool InotifyWatchTree::HasDestinationFor(const std::vector<MovePlan>& plans, const MovePlan& plan) {
  return std::any_of(plans.begin(), plans.end(), [&](const MovePlan& other) {
    return other.to && other.sub->receiver.Get() == plan.sub->receiver.Get();
  });
}

void InotifyWatchTree::ForgetCaughtUp(Subscription& sub, const std::string& path,
                                      bool isDirectory) {
  if (sub.caughtUp.empty()) return;
  sub.caughtUp.erase(path);
  if (!isDirectory) return;
  const std::string prefix = JoinPath(path, "");
  auto it = sub.caughtUp.lower_bound(prefix);
  while (it != sub.caughtUp.end() && it->starts_with(prefix)) it = sub.caughtUp.erase(it);
}

void InotifyWatchTree::HandleOverflow(std::vector<InotifyDelivery>& out) {
  ORN_TRACE(m_tracer, orn::kTraceLevelError)
      << "inotify\tQueue overflow: events were lost; rescanning the watched trees";
  for (auto& [id, sub] : m_subs) {
    EmitError(*sub, "inotify queue overflow: events were lost under " + sub->root, out);
    Notice(CoverageReason::kQueueOverflow, sub->root);
  }
  // Directories created while records were lost have no watch yet.
  for (auto& [id, sub] : m_subs) {
    const bool lost = !sub->top;
    Rewatch(*sub);
    if (lost && sub->top) Notice(CoverageReason::kRootBack, sub->root);
  }
}

void InotifyWatchTree::WatchNew(Node* parent, const std::string& name, std::uint32_t creationBits,
                                std::size_t first, std::vector<InotifyDelivery>& out) {
  Subscription& sub = *parent->sub;
  const std::string path = JoinPath(PathOf(parent), name);
  ScopedFd fd = OpenDirectory(path, false);
  if (!fd.Valid()) {
    NoteSkipped(errno, path);
    return;
  }
  // Entries made before the watch existed have no record of their own.
  std::vector<Found> found;
  const bool reportFound = (sub.mask & creationBits) != 0;
  Node* child = ChildOf(parent, name);
  const int err = Walk(child, std::move(fd), path, reportFound ? &found : nullptr);
  if (child->wd < 0) RemoveChild(parent, name);
  if (err == ENOSPC) {
    EmitError(sub, "inotify watch limit reached: changes under " + path + " are not watched", out);
  } else if (err != 0) {
    NoteSkipped(err, path);
  }
  for (Found& entry : found) {
    sub.caughtUp.insert(entry.path);
    Emit(sub, mod::kObjectCreated, creationBits, std::move(entry.path), {}, entry.isDirectory,
         first, out);
  }
}

void InotifyWatchTree::RewatchLostRoots() {
  for (auto& [id, sub] : m_subs) {
    if (sub->top) continue;
    Rewatch(*sub);
    if (sub->top) Notice(CoverageReason::kRootBack, sub->root);
  }
}

void InotifyWatchTree::ForgetCatchUp() {
  for (auto& [id, sub] : m_subs) sub->caughtUp.clear();
}

void InotifyWatchTree::Relink(Node* from, const std::string& fromName, Node* to,
                              const std::string& toName, std::size_t first,
                              std::vector<InotifyDelivery>& out) {
  const auto it = from->children.find(fromName);
  if (it == from->children.end()) {  // never watched (unreadable, or raced): try now
    WatchNew(to, toName, 0, first, out);
    return;
  }
  std::unique_ptr<Node> moved = std::move(it->second);
  from->children.erase(it);
  RemoveChild(to, toName);  // a directory the rename replaced
  moved->name = toName;
  moved->parent = to;
  to->children.emplace(toName, std::move(moved));
}

void InotifyWatchTree::Rewatch(Subscription& sub) {
  ScopedFd fd = OpenDirectory(sub.root, true);
  if (!fd.Valid()) return;  // root gone: its IN_IGNORED drops the tree
  if (!sub.top) {
    sub.top = std::make_unique<Node>();
    sub.top->sub = &sub;
    sub.top->name = sub.root;
  }
  if (const int err = Walk(sub.top.get(), std::move(fd), sub.root, nullptr); err != 0) {
    NoteSkipped(err, sub.root);
  }
  if (sub.top->wd < 0) DestroyTree(std::move(sub.top));
}

void InotifyWatchTree::Emit(Subscription& sub, std::uint32_t code, std::uint32_t wantedBits,
                            std::string path, std::string formerPath, bool isDirectory,
                            std::size_t first, std::vector<InotifyDelivery>& out) {
  if ((sub.mask & wantedBits) == 0) return;
  // A receiver with overlapping subscriptions is told once per record.
  if (HasSiblings(sub)) {
    for (std::size_t i = first; i < out.size(); ++i) {
      const pax::InotifyEvent& e = out[i].event;
      if (e.mask == code && e.path == path && e.formerPath == formerPath &&
          ReceiverOf(out[i].subscription).Get() == sub.receiver.Get()) {
        return;
      }
    }
  }
  InotifyDelivery delivery;
  delivery.subscription = sub.id;
  delivery.event.path = std::move(path);
  delivery.event.formerPath = std::move(formerPath);
  delivery.event.mask = code;
  delivery.event.isDirectory = isDirectory;
  out.push_back(std::move(delivery));
}

void InotifyWatchTree::EmitError(Subscription& sub, std::string text,
                                 std::vector<InotifyDelivery>& out) {
  InotifyDelivery delivery;
  delivery.subscription = sub.id;
  delivery.event.path = sub.root;
  delivery.event.error = std::move(text);
  out.push_back(std::move(delivery));
}

}  // namespace arvo::host
