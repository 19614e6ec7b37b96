// The watched directory trees of every subscription, and the translation of
// raw inotify records into the events each receiver is given.
//
// One inotify instance serves every subscription, so one directory has one
// watch descriptor however many subscriptions cover it. Each subscription
// keeps its own tree of nodes (one per watched directory, named relative to
// its parent) and the tree indexes nodes by descriptor; a node's full path is
// composed from its ancestors when an event needs it, so renaming a directory
// moves its whole subtree by relinking one node. A kernel watch is removed
// when the last node using it goes.
//
// Not thread-safe: the provider serialises every call with its own mutex.
#pragma once

#include <sys/inotify.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/util/coverage_notice.h"
#include "host/util/scoped_fd.h"
#include "host/watch/inotify_event_reader.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/inotify.h"

namespace arvo::host {

// Adds and removes kernel watches; a seam for fault injection in tests.
class IWatchRegistrar {
 public:
  virtual ~IWatchRegistrar() = default;
  // Watches the directory open as `dirFd`, reached at `path`, with the
  // provider's fixed mask. `followLink` lets a final symbolic link in `path`
  // be followed: only for a subscription's root, which may be given through
  // a link; below it nothing is followed. Returns the watch descriptor or
  // -errno.
  virtual int AddWatch(int dirFd, const std::string& path, bool followLink) = 0;
  virtual void RemoveWatch(int wd) = 0;
};

// The registrar of an inotify instance (the descriptor is not owned).
class InotifyRegistrar final : public IWatchRegistrar {
 public:
  // What every watch asks for: the changes receivers may subscribe to and
  // what keeps the trees right. Subscribers' masks filter at delivery, so a
  // watch shared by subscriptions never needs its mask changed.
  static constexpr std::uint32_t kWatchMask = IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO |
                                              IN_CREATE | IN_DELETE | IN_DELETE_SELF |
                                              IN_MOVE_SELF | IN_EXCL_UNLINK | IN_ONLYDIR;
  explicit InotifyRegistrar(int inotifyFd) : m_fd(inotifyFd) {}
  int AddWatch(int dirFd, const std::string& path, bool followLink) override;
  void RemoveWatch(int wd) override;

 private:
  int m_fd;
};

// One event for the receiver of one subscription.
struct InotifyDelivery {
  std::uint64_t subscription = 0;
  pax::InotifyEvent event;
};

class InotifyWatchTree {
 public:
  InotifyWatchTree(IWatchRegistrar& registrar, orn::ITracer* tracer);
  ~InotifyWatchTree();
  InotifyWatchTree(const InotifyWatchTree&) = delete;
  InotifyWatchTree& operator=(const InotifyWatchTree&) = delete;

  // Watches `root` and every directory under it for `receiver`, which is
  // given the kinds of change in `mask` (inotify bits). A failure is traced
  // here and leaves nothing of the subscription behind. `directories`
  // receives the number of directories watched.
  orn::result_t Subscribe(pax::IInotifyEventsReceiver* receiver, const std::string& root,
                          std::uint32_t mask, std::size_t* directories);
  // Drops every subscription of `receiver`. The references the tree held are
  // returned so that the caller releases them outside its lock.
  std::vector<orn::RefPtr<pax::IInotifyEventsReceiver>> Unsubscribe(
      pax::IInotifyEventsReceiver* receiver);
  // The receiver of a live subscription; null when it was dropped.
  orn::RefPtr<pax::IInotifyEventsReceiver> ReceiverOf(std::uint64_t subscription) const;

  // Brings the trees up to date with one record and appends the events it
  // means, in order. May walk new directories (which adds watches).
  void Translate(const RawInotifyEvent& raw, std::vector<InotifyDelivery>& out);

  // Distinct kernel watches held.
  std::size_t WatchCount() const { return m_byWd.size(); }

  // Watches again each subscription whose root was lost (deleted, moved
  // away) and exists now; each one is noted as kRootBack.
  void RewatchLostRoots();

  // What changed in the trees' coverage since the last call: a queue
  // overflow, a subtree left without a watch, a root lost or back. In the
  // order it happened, each notice once per area and kind.
  std::vector<CoverageNotice> TakeNotices() { return std::exchange(m_notices, {}); }

  // Called when every record queued so far has been translated (the kernel
  // queue is empty and nothing is held back): from then on no record can
  // repeat an entry that a catch-up walk of a new directory reported.
  void ForgetCatchUp();

 private:
  struct Subscription;
  struct Node {
    Subscription* sub = nullptr;
    Node* parent = nullptr;
    std::string name;  // the whole root path for a subscription's top node
    int wd = -1;
    std::uint64_t seen = 0;  // generation of the last walk that found it
    bool unmounted = false;  // IN_UNMOUNT came: its file system is going away
    std::unordered_map<std::string, std::unique_ptr<Node>> children;
  };
  struct Subscription {
    std::uint64_t id = 0;
    orn::RefPtr<pax::IInotifyEventsReceiver> receiver;
    std::string root;
    std::uint32_t mask = 0;
    std::unique_ptr<Node> top;  // null once the root is gone
    // Paths a catch-up walk reported as created whose own creation record
    // may still be queued (the entry appeared after the watch was added but
    // before the walk read it). Such a record is dropped, not reported twice.
    // Ordered, so that a directory's entries are forgotten as one range.
    std::set<std::string> caughtUp;
  };
  struct Found {
    std::string path;
    bool isDirectory = false;
  };
  // What one joined move means to one subscription: its node of the source
  // directory, of the destination directory (either may be null), and both
  // full paths, composed before any tree changes.
  struct MovePlan {
    Subscription* sub;
    Node* from;
    Node* to;
    std::string formerPath;
    std::string path;
  };

  // Watches `top` (open as `fd`, at `path`) and every directory under it,
  // reusing the nodes already there and dropping those no longer found.
  // `found` (may be null) receives every entry below `top`. Returns 0, or
  // the errno that kept `top` from being watched, or ENOSPC (traced here).
  int Walk(Node* top, ScopedFd fd, const std::string& path, std::vector<Found>* found);
  bool ReadEntries(int fd, const std::string& path, std::vector<std::string>& subdirectories,
                   std::vector<Found>* found);
  int WatchDirectory(Node* node, int fd, const std::string& path);
  static std::string PathOf(const Node* node);
  Node* FirstNodeOf(int wd, const Subscription* sub) const;
  bool HasSiblings(const Subscription& sub) const;
  Node* ChildOf(Node* parent, const std::string& name);
  void Attach(Node* node, int wd);
  void Unindex(Node* node);
  void Prune(Node* node, std::uint64_t generation);
  void RemoveChild(Node* parent, const std::string& name);
  void RemoveNode(Node* node);
  void DestroyTree(std::unique_ptr<Node> node);
  void NoteSkipped(int err, const std::string& path);
  void Notice(CoverageReason reason, const std::string& path);
  std::string AreaOf(const std::string& path) const;

  void HandleOnNode(Node* node, const RawInotifyEvent& raw, std::size_t first,
                    std::vector<InotifyDelivery>& out);
  void HandleSelf(Node* node, const RawInotifyEvent& raw, std::size_t first,
                  std::vector<InotifyDelivery>& out);
  void HandleMove(const RawInotifyEvent& raw, std::size_t first, std::vector<InotifyDelivery>& out);
  void MoveIn(const MovePlan& plan, const MovePlan* source, const RawInotifyEvent& raw,
              std::size_t first, std::vector<InotifyDelivery>& out);
  static const MovePlan* SourceFor(const std::vector<MovePlan>& plans, const MovePlan& plan);
  static bool HasDestinationFor(const std::vector<MovePlan>& plans, const MovePlan& plan);
  static void ForgetCaughtUp(Subscription& sub, const std::string& path, bool isDirectory);
  void HandleOverflow(std::vector<InotifyDelivery>& out);
  void WatchNew(Node* parent, const std::string& name, std::uint32_t creationBits,
                std::size_t first, std::vector<InotifyDelivery>& out);
  void Relink(Node* from, const std::string& fromName, Node* to, const std::string& toName,
              std::size_t first, std::vector<InotifyDelivery>& out);
  void Rewatch(Subscription& sub);

  void Emit(Subscription& sub, std::uint32_t code, std::uint32_t wantedBits, std::string path,
            std::string formerPath, bool isDirectory, std::size_t first,
            std::vector<InotifyDelivery>& out);
  void EmitError(Subscription& sub, std::string text, std::vector<InotifyDelivery>& out);

  IWatchRegistrar& m_registrar;
  orn::ITracer* m_tracer;
  std::map<std::uint64_t, std::unique_ptr<Subscription>> m_subs;  // in subscription order
  std::unordered_map<int, std::vector<Node*>> m_byWd;
  std::uint64_t m_nextId = 1;
  std::uint64_t m_generation = 0;
  std::vector<char> m_dirBuffer;          // getdents64 buffer shared by every walk
  std::size_t m_walked = 0;               // directories attached by walks, for the subscribe trace
  std::vector<CoverageNotice> m_notices;  // since the last TakeNotices
};

// `dir` + "/" + `name`, without doubling a trailing "/" of `dir`.
std::string JoinPath(const std::string& dir, const std::string& name);

// Opens a directory for reading and watching; paths longer than PATH_MAX are
// opened component by component. `followLink` follows a final symbolic link.
// Sets errno and returns an invalid descriptor on failure.
ScopedFd OpenDirectory(const std::string& path, bool followLink);

}  // namespace arvo::host
