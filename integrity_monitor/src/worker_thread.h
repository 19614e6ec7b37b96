// One joinable POSIX thread that runs one runnable, for the on-demand
// task's scan run.
//
// The thread's record (its mutex, its condition variable on the monotonic
// clock, the started/finished flags, the runnable and the thread id) is
// shared by the WorkerThread holder and the running thread through an atomic
// count; whichever drops the last reference frees it, so the holder may be
// joined or destroyed before or after the runnable returns.
//
// Thread-safety: one WorkerThread is driven by one controlling thread at a
// time (the task serialises Start/Stop under its lock). Join() must not be
// called from the worker thread itself.
#pragma once

#include <cstdint>
#include <functional>

#include "orn/result.h"

namespace pax::fim {

class WorkerThread {
 public:
  // Runs on the new thread; its value is kept but not interpreted. Must not
  // throw (an escaping exception is swallowed at the thread's edge).
  using Runnable = std::function<std::uint32_t()>;

  WorkerThread() = default;
  ~WorkerThread() { Join(); }
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Starts a thread (default attributes) running `runnable`. A holder that
  // still has a thread joins it first. A failing condition-variable set-up
  // or pthread_create is returned as its errno converted to a result, and
  // nothing is left behind.
  [[nodiscard]] result_t Start(Runnable runnable);

  // Joins the thread if there is one and drops this holder's reference.
  void Join();

  bool HasThread() const { return m_record != nullptr; }

  // Blocks until the runnable has returned; false when there is no thread.
  bool WaitFinished() const;

  struct Record;

 private:
  Record* m_record = nullptr;
};

}  // namespace pax::fim
