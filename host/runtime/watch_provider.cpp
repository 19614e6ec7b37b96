#include "host/runtime/watch_provider.h"

#include "host/watch/fanotify_provider.h"
#include "host/watch/inotify_provider.h"
#include "orn/simple_object.h"

namespace arvo::host {
namespace {

// fanotify first, inotify for the directories whose file system fanotify
// cannot mark (one without file handles, such as tmpfs before Linux 6.7, or
// a network file system). Both are made up front: an inotify instance with
// no subscription costs one descriptor and no thread.
class FallbackProvider final : public orn::SimpleObject<pax::IInotifyEventsProvider> {
 public:
  FallbackProvider(orn::RefPtr<pax::IInotifyEventsProvider> fanotify,
                   orn::RefPtr<pax::IInotifyEventsProvider> inotify)
      : m_fanotify(std::move(fanotify)), m_inotify(std::move(inotify)) {}

  orn::result_t Subscribe(pax::IInotifyEventsReceiver* receiver,
                          const orn::types::string8_t& directory, std::uint32_t mask) override {
    const orn::result_t r = m_fanotify->Subscribe(receiver, directory, mask);
    if (ORN_SUCCEEDED(r) || r == orn::errors::kInvalidArgument || r == orn::errors::kPathNotFound)
      return r;
    return m_inotify->Subscribe(receiver, directory, mask);
  }

  orn::result_t Unsubscribe(pax::IInotifyEventsReceiver* receiver) override {
    const orn::result_t fromFanotify = m_fanotify->Unsubscribe(receiver);
    const orn::result_t fromInotify = m_inotify->Unsubscribe(receiver);
    return fromFanotify == orn::errors::kOk ? fromFanotify : fromInotify;
  }

 private:
  const orn::RefPtr<pax::IInotifyEventsProvider> m_fanotify;
  const orn::RefPtr<pax::IInotifyEventsProvider> m_inotify;
};

}  // namespace

orn::result_t CreateWatchProvider(orn::ITracer* tracer, WatchBackend wanted,
                                  CoverageObserver observer,
                                  orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                  WatchProviderChoice& choice,
                                  std::shared_ptr<InotifyCoverage>* coverage) {
  std::string refused;
  if (wanted != WatchBackend::kInotify) {
    orn::RefPtr<pax::IInotifyEventsProvider> fanotify;
    const orn::result_t r = CreateFanotifyProvider(tracer, fanotify, refused, observer);
    if (ORN_SUCCEEDED(r) && wanted == WatchBackend::kFanotify) {
      out = std::move(fanotify);
      choice = {"fanotify (file-system marks)", true};
      return r;
    }
    if (ORN_SUCCEEDED(r)) {
      orn::RefPtr<pax::IInotifyEventsProvider> inotify;
      const orn::result_t made = CreateInotifyProvider(tracer, inotify, observer, coverage);
      if (ORN_FAILED(made)) return made;
      out = orn::MakeSimple<FallbackProvider>(std::move(fanotify), std::move(inotify));
      choice = {"fanotify (file-system marks; inotify where a file system cannot be marked)", true};
      return r;
    }
    if (wanted == WatchBackend::kFanotify) {
      choice = {"cannot use fanotify: " + refused, false};
      return r;
    }
  }
  const orn::result_t r = CreateInotifyProvider(tracer, out, std::move(observer), coverage);
  if (ORN_FAILED(r)) {
    choice = {"cannot create the inotify provider", false};
  } else {
    choice = {wanted == WatchBackend::kAuto ? "inotify (" + refused + ")" : "inotify", false};
  }
  return r;
}

}  // namespace arvo::host
