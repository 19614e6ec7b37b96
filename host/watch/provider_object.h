// The object both watch backends hand out as pax::IInotifyEventsProvider:
// argument checks, and the delivery thread's start and end. What a backend
// watches and how it delivers lives in its `Core`, which provides
//   orn::ITracer* Tracer() const;
//   orn::result_t Subscribe(receiver, directory, mask);
//   orn::result_t Unsubscribe(receiver);
//   void Run();          // the delivery thread's body
//   void RequestStop();  // makes Run return soon; callable from any thread
//
// The thread keeps the core alive by itself, so a provider released on the
// delivery thread (inside OnEvent) lets the thread finish instead of joining
// it. Thread-safety: Subscribe and Unsubscribe may be called from any thread.
#pragma once

#include <sys/inotify.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "framework/check.h"
#include "orn/simple_object.h"
#include "pax/inotify.h"

namespace arvo::host {

// The kinds of change a subscription may ask for.
inline constexpr std::uint32_t kSubscribableMask =
    IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;

template <typename Core>
class ProviderObject final : public orn::SimpleObject<pax::IInotifyEventsProvider> {
 public:
  // `tag` prefixes the trace lines ("inotify", "fanotify"); a literal.
  ProviderObject(std::shared_ptr<Core> core, const char* tag)
      : m_core(std::move(core)), m_tag(tag) {}

  orn::result_t Subscribe(pax::IInotifyEventsReceiver* receiver,
                          const orn::types::string8_t& directory, std::uint32_t mask) override {
    if (!ORN_CHECK_BOOL(m_core->Tracer(),
                        receiver && !directory.empty() && (mask & kSubscribableMask) != 0,
                        m_tag << "\tSubscribe needs a receiver, a directory and a mask"))
      return orn::errors::kInvalidArgument;
    if (const orn::result_t r = StartDelivery(); ORN_FAILED(r)) return r;
    return m_core->Subscribe(receiver, directory, mask);
  }

  orn::result_t Unsubscribe(pax::IInotifyEventsReceiver* receiver) override {
    if (!ORN_CHECK_BOOL(m_core->Tracer(), receiver, m_tag << "\tUnsubscribe needs a receiver"))
      return orn::errors::kInvalidArgument;
    return m_core->Unsubscribe(receiver);
  }

 private:
  ~ProviderObject() override {
    if (!m_thread.joinable()) return;
    m_core->RequestStop();
    if (m_thread.get_id() == std::this_thread::get_id()) {
      m_thread.detach();  // released from inside OnEvent: the thread ends by itself
    } else {
      m_thread.join();
    }
  }

  orn::result_t StartDelivery() {
    std::lock_guard lock(m_startMutex);
    if (m_thread.joinable()) return orn::errors::kOk;
    try {
      m_thread = std::thread([core = m_core] { core->Run(); });
    } catch (const std::system_error& e) {
      return ORN_CHECK_AS(m_core->Tracer(), orn::ResultFromErrno(e.code().value()),
                          "std::thread(Run)", m_tag << "\tCannot start the delivery thread");
    }
    return orn::errors::kOk;
  }

  const std::shared_ptr<Core> m_core;
  const char* const m_tag;
  std::mutex m_startMutex;
  std::thread m_thread;  // guarded by m_startMutex until the destructor
};

}  // namespace arvo::host
