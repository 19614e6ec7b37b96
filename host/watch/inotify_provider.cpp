#include "host/watch/inotify_provider.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/trace.h"
#include "host/util/scoped_fd.h"
#include "host/watch/inotify_event_reader.h"
#include "host/watch/inotify_limits.h"
#include "host/watch/inotify_watch_tree.h"
#include "host/watch/provider_object.h"
#include "host/watch/receiver_gate.h"
#include "orn/simple_object.h"

namespace arvo::host {
namespace {

// State shared by the provider object and its delivery thread. The thread
// keeps the core alive by itself, so a provider released on the delivery
// thread can let the thread finish instead of joining it.
class DeliveryCore final : public InotifyCoverage {
 public:
  DeliveryCore(orn::ITracer* tracer, ScopedFd inotify, ScopedFd wake, CoverageObserver observer)
      : m_tracer(tracer),
        m_inotify(std::move(inotify)),
        m_wake(std::move(wake)),
        m_observer(std::move(observer)),
        m_registrar(m_inotify.Get()),
        m_tree(m_registrar, tracer) {}

  void RewatchLostRoots() override;

  orn::ITracer* Tracer() const { return m_tracer.Get(); }
  orn::result_t Subscribe(pax::IInotifyEventsReceiver* receiver, const std::string& directory,
                          std::uint32_t mask);
  orn::result_t Unsubscribe(pax::IInotifyEventsReceiver* receiver);
  // The delivery thread's body; returns after RequestStop or a fatal error.
  void Run();
  void RequestStop();

 private:
  bool WaitForRecords();
  std::size_t QueuedBytes() const;
  void Deliver(const std::vector<InotifyDelivery>& deliveries);
  // Without m_mutex held.
  void Tell(const std::vector<CoverageNotice>& notices) const;

  const orn::RefPtr<orn::ITracer> m_tracer;
  const ScopedFd m_inotify;
  const ScopedFd m_wake;  // eventfd: wakes the thread to stop
  const CoverageObserver m_observer;
  InotifyRegistrar m_registrar;
  std::atomic<bool> m_stop{false};

  std::mutex m_mutex;
  InotifyWatchTree m_tree;  // guarded by m_mutex
  ReceiverGate m_gate;

  InotifyEventReader m_reader;  // delivery thread only
};

orn::result_t DeliveryCore::Subscribe(pax::IInotifyEventsReceiver* receiver,
                                      const std::string& directory, std::uint32_t mask) {
  orn::types::string8_t name;
  (void)receiver->GetName(name);
  std::size_t directories = 0;
  orn::result_t r;
  std::vector<CoverageNotice> notices;
  {
    std::lock_guard lock(m_mutex);
    r = m_tree.Subscribe(receiver, directory, mask & kSubscribableMask, &directories);
    notices = m_tree.TakeNotices();
  }
  Tell(notices);
  if (ORN_FAILED(r)) return r;  // traced by the tree, which knows why
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
      << "inotify\tWatching '" << directory << "' for " << name << " (mask 0x" << std::hex << mask
      << std::dec << "): " << directories << " directories";
  return orn::errors::kOk;
}

orn::result_t DeliveryCore::Unsubscribe(pax::IInotifyEventsReceiver* receiver) {
  std::vector<orn::RefPtr<pax::IInotifyEventsReceiver>> dropped;
  {
    std::unique_lock lock(m_mutex);
    dropped = m_tree.Unsubscribe(receiver);
    m_gate.WaitUntilIdle(lock, receiver);
  }
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
      << "inotify\tUnsubscribed " << dropped.size() << " subscription(s)";
  return dropped.empty() ? orn::errors::kFalse : orn::errors::kOk;
}

void DeliveryCore::Run() {
  m_gate.EnterDeliveryThread();
  (void)::pthread_setname_np(::pthread_self(), "arvoInotify");
  std::vector<RawInotifyEvent> records;
  std::vector<InotifyDelivery> deliveries;
  while (WaitForRecords()) {
    if (const int err = m_reader.Fill(m_inotify.Get()); err != 0) {
      (void)ORN_CHECK_AS(Tracer(), orn::ResultFromErrno(err), "read(inotify)",
                         "inotify\tCannot read inotify records: delivery stops");
      return;
    }
    records.clear();
    m_reader.Drain(InotifyEventReader::Clock::now(), records);
    if (records.empty()) continue;
    deliveries.clear();
    std::vector<CoverageNotice> notices;
    {
      std::lock_guard lock(m_mutex);
      for (const RawInotifyEvent& record : records) m_tree.Translate(record, deliveries);
      if (m_reader.Pending() == 0 && QueuedBytes() == 0) m_tree.ForgetCatchUp();
      notices = m_tree.TakeNotices();
    }
    Deliver(deliveries);
    Tell(notices);
  }
}

void DeliveryCore::RewatchLostRoots() {
  std::vector<CoverageNotice> notices;
  {
    std::lock_guard lock(m_mutex);
    m_tree.RewatchLostRoots();
    notices = m_tree.TakeNotices();
  }
  Tell(notices);
}

void DeliveryCore::Tell(const std::vector<CoverageNotice>& notices) const {
  if (!m_observer) return;
  for (const CoverageNotice& notice : notices) {
    try {
      m_observer(notice);
    } catch (...) {  // observers must not throw; the thread must not die of it
      (void)orn::ExceptionToResult(Tracer(), "inotify\tException from the coverage observer: ");
    }
  }
}

// Bytes of records the kernel holds for the next read (0 on error).
std::size_t DeliveryCore::QueuedBytes() const {
  int queued = 0;
  if (::ioctl(m_inotify.Get(), FIONREAD, &queued) != 0 || queued < 0) return 0;
  return static_cast<std::size_t>(queued);
}

// Blocks until records arrive, a held-back move is due, or a stop is asked
// for. Returns false to stop.
bool DeliveryCore::WaitForRecords() {
  struct pollfd fds[2] = {{m_inotify.Get(), POLLIN, 0}, {m_wake.Get(), POLLIN, 0}};
  struct timespec wait {};
  struct timespec* timeout = nullptr;
  if (const auto deadline = m_reader.Deadline()) {
    const auto left = std::max(*deadline - InotifyEventReader::Clock::now(),
                               InotifyEventReader::Clock::duration::zero());
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    wait.tv_sec = static_cast<time_t>(ns / 1000000000);
    wait.tv_nsec = static_cast<long>(ns % 1000000000);
    timeout = &wait;
  }
  while (!m_stop.load()) {
    if (::ppoll(fds, 2, timeout, nullptr) >= 0) return !m_stop.load();
    if (errno != EINTR) {
      (void)ORN_CHECK_AS(Tracer(), orn::ResultFromErrno(errno), "ppoll(fds, 2, timeout, nullptr)",
                         "inotify\tCannot wait for inotify records: delivery stops");
      return false;
    }
  }
  return false;
}

void DeliveryCore::Deliver(const std::vector<InotifyDelivery>& deliveries) {
  m_gate.Deliver(
      m_mutex, deliveries, m_stop,
      [this](std::uint64_t subscription) { return m_tree.ReceiverOf(subscription); }, Tracer(),
      "inotify\tException from a receiver's OnEvent: ");
}

void DeliveryCore::RequestStop() {
  m_stop.store(true);
  const std::uint64_t one = 1;
  (void)WriteAll(m_wake.Get(), &one, sizeof one);
}

}  // namespace

orn::result_t CreateInotifyProvider(orn::ITracer* tracer,
                                    orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                    CoverageObserver observer,
                                    std::shared_ptr<InotifyCoverage>* coverage) {
  ScopedFd inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify.Valid()) {
    const int err = errno;
    return ORN_CHECK_AS(
        tracer, orn::ResultFromErrno(err), "inotify_init1(IN_NONBLOCK | IN_CLOEXEC)",
        "inotify\t" << (err == EMFILE
                            ? InstanceLimitMessage(ReadInotifyLimit(kMaxUserInstancesFile))
                            : "Cannot create an inotify instance"));
  }
  ScopedFd wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake.Valid()) {
    return ORN_CHECK_AS(tracer, orn::ResultFromErrno(errno),
                        "eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)",
                        "inotify\tCannot create the delivery thread's wake-up event");
  }
  try {
    auto core = std::make_shared<DeliveryCore>(tracer, std::move(inotify), std::move(wake),
                                               std::move(observer));
    if (coverage) *coverage = core;
    out = orn::MakeSimple<ProviderObject<DeliveryCore>>(std::move(core), "inotify");
  } catch (...) {
    return orn::ExceptionToResult(tracer, "inotify\tCannot create the provider: ");
  }
  return orn::errors::kOk;
}

}  // namespace arvo::host
