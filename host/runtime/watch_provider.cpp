#include "host/runtime/watch_provider.h"

#include <mutex>

#include "host/watch/fanotify_provider.h"
#include "host/watch/inotify_provider.h"
#include "orn/simple_object.h"

namespace arvo::host {
namespace {

// fanotify first, inotify for the directories whose file system fanotify
// cannot mark (one without file handles, such as tmpfs before Linux 6.7, or
// a network file system). The inotify provider is made on first need.
class FallbackProvider final : public orn::SimpleObject<pax::IInotifyEventsProvider> {
 public:
  FallbackProvider(orn::ITracer* tracer, orn::RefPtr<pax::IInotifyEventsProvider> fanotify)
      : m_tracer(tracer), m_fanotify(std::move(fanotify)) {}

  orn::result_t Subscribe(pax::IInotifyEventsReceiver* receiver,
                          const orn::types::string8_t& directory, std::uint32_t mask) override {
    const orn::result_t r = m_fanotify->Subscribe(receiver, directory, mask);
    if (ORN_SUCCEEDED(r) || r == orn::errors::kInvalidArgument || r == orn::errors::kPathNotFound)
      return r;
    std::lock_guard lock(m_mutex);
    if (!m_inotify) {
      if (const orn::result_t made = CreateInotifyProvider(m_tracer.Get(), m_inotify);
          ORN_FAILED(made))
        return made;
    }
    return m_inotify->Subscribe(receiver, directory, mask);
  }

  orn::result_t Unsubscribe(pax::IInotifyEventsReceiver* receiver) override {
    orn::result_t r = m_fanotify->Unsubscribe(receiver);
    orn::RefPtr<pax::IInotifyEventsProvider> inotify;
    {
      std::lock_guard lock(m_mutex);
      inotify = m_inotify;
    }
    if (inotify) {
      const orn::result_t other = inotify->Unsubscribe(receiver);
      if (r != orn::errors::kOk) r = other;
    }
    return r;
  }

 private:
  const orn::RefPtr<orn::ITracer> m_tracer;
  const orn::RefPtr<pax::IInotifyEventsProvider> m_fanotify;
  std::mutex m_mutex;
  orn::RefPtr<pax::IInotifyEventsProvider> m_inotify;  // guarded by m_mutex
};

}  // namespace

orn::result_t CreateWatchProvider(orn::ITracer* tracer, WatchBackend wanted,
                                  orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                  std::string& description) {
  std::string refused;
  if (wanted != WatchBackend::kInotify) {
    orn::RefPtr<pax::IInotifyEventsProvider> fanotify;
    const orn::result_t r = CreateFanotifyProvider(tracer, fanotify, refused);
    if (ORN_SUCCEEDED(r)) {
      if (wanted == WatchBackend::kAuto) {
        out = orn::MakeSimple<FallbackProvider>(tracer, std::move(fanotify));
        description = "fanotify (file-system marks; inotify where a file system cannot be marked)";
      } else {
        out = std::move(fanotify);
        description = "fanotify (file-system marks)";
      }
      return r;
    }
    if (wanted == WatchBackend::kFanotify) {
      description = "cannot use fanotify: " + refused;
      return r;
    }
  }
  const orn::result_t r = CreateInotifyProvider(tracer, out);
  if (ORN_FAILED(r)) {
    description = "cannot create the inotify provider";
  } else {
    description = wanted == WatchBackend::kAuto ? "inotify (" + refused + ")" : "inotify";
  }
  return r;
}

}  // namespace arvo::host
