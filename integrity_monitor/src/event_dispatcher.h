// A subscription table that delivers events to counted receivers.
//
// EventDispatcher2<TSubscription, TReceiver> implements the Subscribe /
// Unsubscribe / UnsubscribeAndWait operations of TSubscription over a table
// of entries and offers Deliver() to the class that publishes. Deliveries run
// on the publishing thread with the table unlocked around each receiver
// call, so receivers may subscribe and unsubscribe from inside a delivery.
// A receiver is never released while a delivery to it is running: the
// per-entry delivery count, the pending release slot and the waiter record
// carry the release to the end of the last running delivery.
//
// Thread-safety: every operation may be called from any thread. The table
// and every entry field are guarded by m_mutex (a recursive mutex); the
// waiter record has its own mutex, taken after m_mutex, never before.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "orn/allocator.h"
#include "orn/ref_ptr.h"
#include "orn/result.h"

namespace orn {
namespace detail {

// The completion record of threads waiting for the running deliveries to
// one entry to end. Shared by the waiters and the entry; the last owner
// destroys it.
class DeliveryCompletion {
 public:
  DeliveryCompletion() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    // Immune to wall-clock steps should a bounded wait ever be needed.
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_cond, &attr);
    pthread_condattr_destroy(&attr);
    pthread_mutex_init(&m_mutex, nullptr);
  }
  ~DeliveryCompletion() {
    pthread_cond_destroy(&m_cond);
    pthread_mutex_destroy(&m_mutex);
  }
  DeliveryCompletion(const DeliveryCompletion&) = delete;
  DeliveryCompletion& operator=(const DeliveryCompletion&) = delete;

  // Called by each thread that will Wait, before it waits.
  void AddWaiter() {
    pthread_mutex_lock(&m_mutex);
    ++m_waiters;
    pthread_mutex_unlock(&m_mutex);
  }
  void Wait() {
    pthread_mutex_lock(&m_mutex);
    while (!m_done) pthread_cond_wait(&m_cond, &m_mutex);
    pthread_mutex_unlock(&m_mutex);
  }
  // Marks the deliveries ended and wakes the waiters (signal when one waits).
  void Complete() {
    pthread_mutex_lock(&m_mutex);
    m_done = true;
    if (m_waiters == 1) {
      pthread_cond_signal(&m_cond);
    } else {
      pthread_cond_broadcast(&m_cond);
    }
    pthread_mutex_unlock(&m_mutex);
  }

 private:
  pthread_mutex_t m_mutex;
  pthread_cond_t m_cond;
  bool m_done = false;          // guarded by m_mutex
  std::uint32_t m_waiters = 0;  // guarded by m_mutex
};

}  // namespace detail

template <class TSubscription, class TReceiver>
class EventDispatcher2 : public TSubscription {
 public:
  // `allocator` backs the table; null means the process heap.
  explicit EventDispatcher2(IAllocator* allocator) : m_allocator(allocator) {}
  ~EventDispatcher2() {
    DestroyEntries(m_begin, m_end);
    FreeStorage(m_begin);
  }
  EventDispatcher2(const EventDispatcher2&) = delete;
  EventDispatcher2& operator=(const EventDispatcher2&) = delete;

  // Reuses the first wholly free entry or appends one. errors::kOutOfMemory
  // (table unchanged) when the table cannot grow.
  result_t Subscribe(TReceiver* receiver) override {
    if (!receiver) return errors::kInvalidArgument;
    std::lock_guard lock(m_mutex);
    Entry* entry = FirstFree();
    if (!entry) {
      if (m_end == m_capacity && !Grow()) return errors::kOutOfMemory;
      entry = ::new (static_cast<void*>(m_end)) Entry();
      ++m_end;
    }
    entry->subscriber = RefPtr<TReceiver>(receiver);
    entry->receiverKey = receiver;
    return errors::kOk;
  }

  // 0 when the receiver is released now; 1 when a delivery to it is running
  // (it is released when that delivery ends and may be called once more);
  // errors::kNotFound when it is not subscribed. Never waits.
  result_t Unsubscribe(TReceiver* receiver) override {
    RefPtr<TReceiver> released;  // released after unlocking
    std::unique_lock lock(m_mutex);
    Entry* entry = Find(receiver);
    if (!entry) return errors::kNotFound;
    if (entry->deliveries == 0) {
      released = std::move(entry->subscriber);
      const result_t r = entry->pendingRelease ? errors::kFalse : errors::kOk;
      lock.unlock();
      return r;
    }
    if (entry->subscriber.Get() == receiver) {
      released = std::exchange(entry->pendingRelease, std::move(entry->subscriber));
    }
    lock.unlock();
    return errors::kFalse;
  }

  // As Unsubscribe, but waits for the running deliveries to the receiver to
  // end and releases it before returning 0. Must not be called from inside a
  // delivery to the same receiver: it would wait for itself.
  result_t UnsubscribeAndWait(TReceiver* receiver) override {
    RefPtr<TReceiver> mine;  // released after the wait
    std::shared_ptr<detail::DeliveryCompletion> completion;
    {
      std::unique_lock lock(m_mutex);
      Entry* entry = Find(receiver);
      if (!entry) return errors::kNotFound;
      if (entry->deliveries == 0) {
        mine = std::move(entry->subscriber);
        return entry->pendingRelease ? errors::kFalse : errors::kOk;
      }
      mine = entry->subscriber.Get() == receiver ? std::move(entry->subscriber)
                                                 : std::move(entry->pendingRelease);
      if (!entry->waiter) entry->waiter = std::make_shared<detail::DeliveryCompletion>();
      completion = entry->waiter;
      completion->AddWaiter();
    }
    completion->Wait();
    return errors::kOk;
  }

 protected:
  // Calls call(TReceiver*) for every subscriber in table order, including
  // entries appended or reused at or after the current index during the
  // pass. `call` must not throw: an exception ends the process.
  template <class Call>
  void Deliver(Call&& call) {
    std::unique_lock lock(m_mutex);
    for (std::size_t i = 0; i < Size();) {
      if (!m_begin[i].subscriber) {
        ++i;
        continue;
      }
      ++m_begin[i].deliveries;
      TReceiver* receiver = m_begin[i].subscriber.Get();
      lock.unlock();
      [&]() noexcept { call(receiver); }();
      lock.lock();
      // The table may have grown meanwhile: reach the entry by index again.
      Entry& entry = m_begin[i++];
      if (--entry.deliveries != 0) continue;
      RefPtr<TReceiver> pending = std::move(entry.pendingRelease);
      std::shared_ptr<detail::DeliveryCompletion> waiter = std::move(entry.waiter);
      if (!pending && !waiter) continue;
      lock.unlock();
      pending.Reset();
      if (waiter) waiter->Complete();
      lock.lock();
    }
  }

 private:
  struct Entry {
    RefPtr<TReceiver> subscriber;      // null: free or being vacated
    RefPtr<TReceiver> pendingRelease;  // unsubscribed during a delivery
    std::uint32_t deliveries = 0;      // deliveries to this entry now running
    std::shared_ptr<detail::DeliveryCompletion> waiter;
    const TReceiver* receiverKey = nullptr;  // as subscribed; not counted

    bool IsFree() const { return !subscriber && !pendingRelease && deliveries == 0 && !waiter; }
  };

  std::size_t Size() const { return static_cast<std::size_t>(m_end - m_begin); }

  Entry* FirstFree() {
    for (Entry* e = m_begin; e != m_end; ++e)
      if (e->IsFree()) return e;
    return nullptr;
  }

  Entry* Find(const TReceiver* receiver) {
    if (!receiver) return nullptr;
    for (Entry* e = m_begin; e != m_end; ++e)
      if (e->subscriber.Get() == receiver || e->pendingRelease.Get() == receiver) return e;
    return nullptr;
  }

  // 4 entries first, then doubling. Entries move (references transfer).
  bool Grow() {
    const std::size_t capacity = static_cast<std::size_t>(m_capacity - m_begin);
    const std::size_t grown = capacity == 0 ? 4 : capacity * 2;
    const std::size_t bytes = grown * sizeof(Entry);
    void* memory = m_allocator ? m_allocator->Allocate(bytes) : ::operator new(bytes, std::nothrow);
    if (!memory) return false;
    Entry* begin = static_cast<Entry*>(memory);
    Entry* out = begin;
    for (Entry* e = m_begin; e != m_end; ++e, ++out)
      ::new (static_cast<void*>(out)) Entry(std::move(*e));
    DestroyEntries(m_begin, m_end);
    FreeStorage(m_begin);
    m_begin = begin;
    m_end = out;
    m_capacity = begin + grown;
    return true;
  }

  static void DestroyEntries(Entry* begin, Entry* end) {
    for (Entry* e = begin; e != end; ++e) e->~Entry();
  }

  void FreeStorage(Entry* storage) {
    if (!storage) return;
    if (m_allocator) {
      m_allocator->Free(storage);
    } else {
      ::operator delete(static_cast<void*>(storage));
    }
  }

  std::recursive_mutex m_mutex;
  Entry* m_begin = nullptr;     // guarded by m_mutex
  Entry* m_end = nullptr;       // guarded by m_mutex
  Entry* m_capacity = nullptr;  // guarded by m_mutex
  RefPtr<IAllocator> m_allocator;
};

}  // namespace orn
