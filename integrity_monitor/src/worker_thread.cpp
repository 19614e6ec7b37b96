#include "worker_thread.h"

#include <pthread.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <utility>

namespace pax::fim {
namespace {

// RAII owner of an initialised pthread mutex.
class PosixMutex {
 public:
  PosixMutex() { m_status = pthread_mutex_init(&m_mutex, nullptr); }
  ~PosixMutex() {
    if (m_status == 0) pthread_mutex_destroy(&m_mutex);
  }
  PosixMutex(const PosixMutex&) = delete;
  PosixMutex& operator=(const PosixMutex&) = delete;
  int Status() const { return m_status; }
  pthread_mutex_t* Get() { return &m_mutex; }

 private:
  pthread_mutex_t m_mutex;
  int m_status;
};

// RAII owner of a pthread condition variable on the monotonic clock.
class MonotonicCond {
 public:
  MonotonicCond() {
    pthread_condattr_t attr;
    m_status = pthread_condattr_init(&attr);
    if (m_status != 0) return;
    m_status = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (m_status == 0) m_status = pthread_cond_init(&m_cond, &attr);
    pthread_condattr_destroy(&attr);
  }
  ~MonotonicCond() {
    if (m_status == 0) pthread_cond_destroy(&m_cond);
  }
  MonotonicCond(const MonotonicCond&) = delete;
  MonotonicCond& operator=(const MonotonicCond&) = delete;
  int Status() const { return m_status; }
  pthread_cond_t* Get() { return &m_cond; }

 private:
  pthread_cond_t m_cond;
  int m_status;
};

class MutexLock {
 public:
  explicit MutexLock(PosixMutex& m) : m_mutex(m) { pthread_mutex_lock(m_mutex.Get()); }
  ~MutexLock() { pthread_mutex_unlock(m_mutex.Get()); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  PosixMutex& m_mutex;
};

}  // namespace

struct WorkerThread::Record {
  explicit Record(Runnable r) : runnable(std::move(r)) {}

  void AddRef() { refs.fetch_add(1); }
  void Release() {
    if (refs.fetch_sub(1) == 1) delete this;
  }

  PosixMutex mutex;
  MonotonicCond cond;
  std::uint8_t started = 0;   // guarded by mutex
  std::uint8_t finished = 0;  // guarded by mutex
  Runnable runnable;
  std::atomic<std::uint32_t> refs{1};
  pthread_t id{};
  std::uint8_t joinable = 1;
  std::uint32_t exitCode = 0;
};

namespace {

void* ThreadEntry(void* arg) {
  auto* record = static_cast<WorkerThread::Record*>(arg);
  {
    MutexLock lock(record->mutex);
    record->started = 1;
  }
  try {
    record->exitCode = record->runnable();
  } catch (...) {
    // The runnable reports its own failures; nothing may leave the thread.
  }
  {
    MutexLock lock(record->mutex);
    record->finished = 1;
    pthread_cond_broadcast(record->cond.Get());
  }
  record->Release();
  return nullptr;
}

}  // namespace

result_t WorkerThread::Start(Runnable runnable) {
  Join();
  auto record = std::make_unique<Record>(std::move(runnable));
  if (record->mutex.Status() != 0) return orn::ResultFromErrno(record->mutex.Status());
  if (record->cond.Status() != 0) return orn::ResultFromErrno(record->cond.Status());
  record->AddRef();  // the thread's reference
  const int err = pthread_create(&record->id, nullptr, &ThreadEntry, record.get());
  if (err != 0) return orn::ResultFromErrno(err);
  m_record = record.release();
  return orn::errors::kOk;
}

void WorkerThread::Join() {
  Record* record = std::exchange(m_record, nullptr);
  if (!record) return;
  if (record->joinable) {
    const int err = pthread_join(record->id, nullptr);
    if (err != 0) pthread_detach(record->id);
    record->joinable = 0;
  }
  record->Release();
}

bool WorkerThread::WaitFinished() const {
  if (!m_record) return false;
  MutexLock lock(m_record->mutex);
  while (!m_record->finished) pthread_cond_wait(m_record->cond.Get(), m_record->mutex.Get());
  return true;
}

}  // namespace pax::fim
