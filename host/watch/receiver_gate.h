// How both watch providers call their receivers: on the delivery thread,
// outside the provider's lock, and so that Unsubscribe can wait until a
// receiver it removed is no longer being called (the caller may then
// release it).
//
// The gate has no lock of its own: each function says which lock of the
// provider (`mutex`, the one that guards the provider's subscriptions) must
// or must not be held.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "framework/exceptions.h"
#include "host/watch/inotify_watch_tree.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/inotify.h"

namespace arvo::host {

class ReceiverGate {
 public:
  // On the delivery thread, before its first delivery.
  void EnterDeliveryThread() { m_deliveryThread.store(std::this_thread::get_id()); }

  // With `lock` held on the provider's mutex: waits until `receiver` is not
  // being called. On the delivery thread the only call that can be running
  // is the caller's own, and waiting for it would never end.
  void WaitUntilIdle(std::unique_lock<std::mutex>& lock,
                     const pax::IInotifyEventsReceiver* receiver) {
    if (std::this_thread::get_id() == m_deliveryThread.load()) return;
    m_idle.wait(lock, [&] { return m_delivering != receiver; });
  }

  // On the delivery thread, without `mutex` held: hands each event to the
  // receiver `receiverOf(subscription)` returns under `mutex` (null when it
  // unsubscribed meanwhile), until `stop` is raised. `what` opens the trace
  // of an exception a receiver throws ("inotify\tException ...: ").
  template <class ReceiverOf>
  void Deliver(std::mutex& mutex, const std::vector<InotifyDelivery>& deliveries,
               const std::atomic<bool>& stop, ReceiverOf receiverOf, orn::ITracer* tracer,
               const char* what) {
    for (const InotifyDelivery& delivery : deliveries) {
      if (stop.load()) return;
      orn::RefPtr<pax::IInotifyEventsReceiver> receiver;
      {
        std::lock_guard lock(mutex);
        receiver = receiverOf(delivery.subscription);
        if (!receiver) continue;
        m_delivering = receiver.Get();
      }
      try {
        (void)receiver->OnEvent(delivery.event);
      } catch (...) {  // receivers must not throw; the thread must not die of it
        (void)orn::ExceptionToResult(tracer, what);
      }
      receiver.Reset();  // before Unsubscribe may return
      {
        std::lock_guard lock(mutex);
        m_delivering = nullptr;
      }
      m_idle.notify_all();
    }
  }

 private:
  std::atomic<std::thread::id> m_deliveryThread{};
  std::condition_variable m_idle;                       // m_delivering changed
  pax::IInotifyEventsReceiver* m_delivering = nullptr;  // guarded by the provider's mutex
};

}  // namespace arvo::host
