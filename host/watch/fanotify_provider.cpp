#include "host/watch/fanotify_provider.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/trace.h"
#include "host/util/process_origin.h"
#include "host/util/scoped_fd.h"
#include "host/watch/fanotify_record.h"
#include "host/watch/fanotify_resolver.h"
#include "host/watch/fanotify_scope.h"
#include "host/watch/provider_object.h"
#include "host/watch/receiver_gate.h"
#include "orn/simple_object.h"

namespace arvo::host {
namespace {

// What every mark asks for; subscription masks filter at delivery.
constexpr std::uint64_t kMarkMask =
    FAN_CREATE | FAN_DELETE | FAN_MODIFY | FAN_ATTRIB | FAN_RENAME | FAN_ONDIR;
// Kernels before 5.17 have no FAN_RENAME: moves arrive in halves.
constexpr std::uint64_t kMarkMaskWithoutRename =
    FAN_CREATE | FAN_DELETE | FAN_MODIFY | FAN_ATTRIB | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_ONDIR;

class FanotifyCore {
 public:
  FanotifyCore(orn::ITracer* tracer, ScopedFd fanotify, ScopedFd wake, std::uint64_t markMask,
               CoverageObserver observer)
      : m_tracer(tracer),
        m_fanotify(std::move(fanotify)),
        m_wake(std::move(wake)),
        m_markMask(markMask),
        m_observer(std::move(observer)) {}

  orn::ITracer* Tracer() const { return m_tracer.Get(); }
  orn::result_t Subscribe(pax::IInotifyEventsReceiver* receiver, const std::string& directory,
                          std::uint32_t mask);
  orn::result_t Unsubscribe(pax::IInotifyEventsReceiver* receiver);
  void Run();
  void RequestStop();

 private:
  orn::result_t Mark(const std::string& directory, const std::string& realRoot, int dirFd,
                     std::uint64_t fsid);
  // Returns false to stop; `mountsChanged` is set when the mount table changed.
  bool WaitForRecords(bool& mountsChanged);
  void CheckMounts();
  void Deliver(const std::vector<InotifyDelivery>& deliveries, const ProcessOrigin* origin);
  void TellOverflow(const std::vector<InotifyDelivery>& deliveries) const;

  const orn::RefPtr<orn::ITracer> m_tracer;
  const ScopedFd m_fanotify;
  const ScopedFd m_wake;
  const ScopedFd m_mountinfo{::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)};
  const std::uint64_t m_markMask;
  const CoverageObserver m_observer;  // may be empty
  const pid_t m_self = ::getpid();
  std::atomic<bool> m_stop{false};

  std::mutex m_mutex;
  FanotifyScope m_scope;        // guarded by m_mutex
  FanotifyResolver m_resolver;  // guarded by m_mutex
  ReceiverGate m_gate;
};

orn::result_t FanotifyCore::Mark(const std::string& directory, const std::string& realRoot,
                                 int dirFd, std::uint64_t fsid) {
  if (m_resolver.Knows(fsid)) return orn::errors::kOk;
  int kind = FAN_MARK_FILESYSTEM;
  if (::fanotify_mark(m_fanotify.Get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, m_markMask, dirFd,
                      nullptr) != 0) {
    kind = FAN_MARK_MOUNT;
    if (::fanotify_mark(m_fanotify.Get(), FAN_MARK_ADD | FAN_MARK_MOUNT, m_markMask, dirFd,
                        nullptr) != 0) {
      return ORN_CHECK_AS(Tracer(), orn::ResultFromErrno(errno), "fanotify_mark(FAN_MARK_ADD)",
                          "fanotify\tCannot mark the file system of '" << directory << "'");
    }
  }
  m_resolver.AddFileSystem(fsid, realRoot);
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
      << "fanotify\tMarked the " << (kind == FAN_MARK_FILESYSTEM ? "file system" : "mount")
      << " of '" << directory << "'";
  return orn::errors::kOk;
}

orn::result_t FanotifyCore::Subscribe(pax::IInotifyEventsReceiver* receiver,
                                      const std::string& directory, std::uint32_t mask) {
  // The root may be reached through a symbolic link; nothing below it is.
  const ScopedFd dirFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dirFd.Valid()) {
    const orn::result_t r = errno == ENOENT || errno == ENOTDIR ? orn::errors::kPathNotFound
                                                                : orn::ResultFromErrno(errno);
    return ORN_CHECK_AS(Tracer(), r, "open(directory)",
                        "fanotify\tCannot watch '" << directory << "'");
  }
  const std::uint64_t fsid = FileSystemIdOf(dirFd.Get());
  std::string realRoot = PathOfDescriptor(dirFd.Get());
  if (realRoot.empty()) realRoot = directory;
  std::lock_guard lock(m_mutex);
  if (const orn::result_t r = Mark(directory, realRoot, dirFd.Get(), fsid); ORN_FAILED(r)) return r;
  (void)m_scope.Add(receiver, directory, realRoot, fsid, mask & kSubscribableMask);
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
      << "fanotify\tWatching '" << directory << "' (mask 0x" << std::hex << mask << std::dec
      << "): " << m_resolver.FileSystems() << " file system mark(s)";
  return orn::errors::kOk;
}

orn::result_t FanotifyCore::Unsubscribe(pax::IInotifyEventsReceiver* receiver) {
  std::vector<orn::RefPtr<pax::IInotifyEventsReceiver>> dropped;
  {
    std::unique_lock lock(m_mutex);
    dropped = m_scope.Remove(receiver);
    m_gate.WaitUntilIdle(lock, receiver);
  }
  return dropped.empty() ? orn::errors::kFalse : orn::errors::kOk;
}

void FanotifyCore::Run() {
  m_gate.EnterDeliveryThread();
  (void)::pthread_setname_np(::pthread_self(), "arvoFanotify");
  std::vector<char> buffer(64 * 1024);
  std::vector<FanotifyRecord> records;
  std::vector<InotifyDelivery> deliveries;
  bool mountsChanged = false;
  while (WaitForRecords(mountsChanged)) {
    if (mountsChanged) CheckMounts();
    const ssize_t n = ::read(m_fanotify.Get(), buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;  // woken by the mount table
      (void)ORN_CHECK_AS(Tracer(), orn::ResultFromErrno(errno), "read(fanotify)",
                         "fanotify\tCannot read fanotify records: delivery stops");
      return;
    }
    records.clear();
    (void)DecodeFanotifyRecords(buffer.data(), static_cast<std::size_t>(n), records);
    {
      std::lock_guard lock(m_mutex);
      m_resolver.NewBatch();
    }
    // One read of /proc per process and read: the records of one read were
    // queued within moments of each other, by a process the pidfd of its
    // first record proved alive when it was read.
    std::optional<ProcessOrigin> origin;
    for (FanotifyRecord& record : records) {
      if (record.pid == m_self && !record.Overflow()) continue;  // our own writes
      deliveries.clear();
      {
        std::lock_guard lock(m_mutex);
        m_scope.Translate(record, m_resolver, deliveries);
      }
      if (deliveries.empty()) continue;
      if (record.Overflow()) {
        Deliver(deliveries, nullptr);
        TellOverflow(deliveries);
        continue;
      }
      if (!origin || origin->pid != record.pid)
        origin = ReadProcessOrigin(record.pid, record.pidfd.Get());
      Deliver(deliveries, &*origin);
    }
  }
}

// A watched file system that was unmounted takes its mark with it: its
// subscriptions are told that coverage is lost there.
void FanotifyCore::CheckMounts() {
  std::vector<InotifyDelivery> deliveries;
  {
    std::lock_guard lock(m_mutex);
    for (const std::uint64_t fsid : m_resolver.DropUnmounted())
      m_scope.EmitUnmounted(fsid, deliveries);
  }
  Deliver(deliveries, nullptr);
}

bool FanotifyCore::WaitForRecords(bool& mountsChanged) {
  struct pollfd fds[3] = {
      {m_fanotify.Get(), POLLIN, 0}, {m_wake.Get(), POLLIN, 0}, {m_mountinfo.Get(), POLLPRI, 0}};
  mountsChanged = false;
  while (!m_stop.load()) {
    if (::poll(fds, m_mountinfo.Valid() ? 3 : 2, -1) >= 0) {
      if (fds[2].revents & (POLLPRI | POLLERR)) {
        // The change is acknowledged by reading the table again.
        char buffer[4096];
        (void)::lseek(m_mountinfo.Get(), 0, SEEK_SET);
        while (::read(m_mountinfo.Get(), buffer, sizeof buffer) > 0) {
        }
        mountsChanged = true;
      }
      return !m_stop.load();
    }
    if (errno != EINTR) {
      (void)ORN_CHECK_AS(Tracer(), orn::ResultFromErrno(errno), "poll(fds, 2, -1)",
                         "fanotify\tCannot wait for fanotify records: delivery stops");
      return false;
    }
  }
  return false;
}

void FanotifyCore::Deliver(const std::vector<InotifyDelivery>& deliveries,
                           const ProcessOrigin* origin) {
  const ScopedProcessOrigin current(origin);
  m_gate.Deliver(
      m_mutex, deliveries, m_stop,
      [this](std::uint64_t subscription) { return m_scope.ReceiverOf(subscription); }, Tracer(),
      "fanotify\tException from a receiver's OnEvent: ");
}

// One notice per subscription root, as the inotify provider gives: the
// deliveries of an overflow record name each root once.
void FanotifyCore::TellOverflow(const std::vector<InotifyDelivery>& deliveries) const {
  if (!m_observer) return;
  for (const InotifyDelivery& delivery : deliveries) {
    if (m_stop.load()) return;
    CoverageNotice notice;
    notice.area = delivery.event.path;
    notice.reason = CoverageReason::kQueueOverflow;
    notice.path = delivery.event.path;
    try {
      m_observer(notice);
    } catch (...) {  // observers must not throw; the thread must not die of it
      (void)orn::ExceptionToResult(Tracer(), "fanotify\tException from the coverage observer: ");
    }
  }
}

void FanotifyCore::RequestStop() {
  m_stop.store(true);
  const std::uint64_t one = 1;
  (void)WriteAll(m_wake.Get(), &one, sizeof one);
}

// The richest instance the kernel grants: rename records whole and process
// descriptors (5.17, 5.15), then without process descriptors, then moves in
// halves (5.9).
ScopedFd InitFanotify(std::uint64_t& markMask, std::string& why) {
  constexpr unsigned kBase = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK;
  const struct {
    unsigned flags;
    std::uint64_t mask;
  } kTries[] = {
      {kBase | FAN_REPORT_DFID_NAME_TARGET | FAN_REPORT_PIDFD, kMarkMask},
      {kBase | FAN_REPORT_DFID_NAME_TARGET, kMarkMask},
      {kBase | FAN_REPORT_DFID_NAME, kMarkMaskWithoutRename},
  };
  int err = 0;
  for (const auto& attempt : kTries) {
    ScopedFd fd(::fanotify_init(attempt.flags, O_RDONLY | O_LARGEFILE | O_CLOEXEC));
    if (fd.Valid()) {
      markMask = attempt.mask;
      return fd;
    }
    err = errno;
    if (err == EPERM) break;  // no privilege: no other form will do
  }
  why = err == EPERM ? "fanotify needs CAP_SYS_ADMIN"
                     : std::string("the kernel refused fanotify_init: ") + std::strerror(err);
  errno = err;
  return {};
}

}  // namespace

orn::result_t CreateFanotifyProvider(orn::ITracer* tracer,
                                     orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                     std::string& why, CoverageObserver observer) {
  std::uint64_t markMask = 0;
  ScopedFd fanotify = InitFanotify(markMask, why);
  if (!fanotify.Valid()) return orn::ResultFromErrno(errno);
  ScopedFd wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake.Valid()) {
    why = "cannot create an eventfd";
    return orn::ResultFromErrno(errno);
  }
  try {
    auto core = std::make_shared<FanotifyCore>(tracer, std::move(fanotify), std::move(wake),
                                               markMask, std::move(observer));
    out = orn::MakeSimple<ProviderObject<FanotifyCore>>(std::move(core), "fanotify");
  } catch (...) {
    why = "out of memory";
    return orn::ExceptionToResult(tracer, "fanotify\tCannot create the provider: ");
  }
  return orn::errors::kOk;
}

}  // namespace arvo::host
