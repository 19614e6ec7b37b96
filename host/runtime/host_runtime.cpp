#include "host/runtime/host_runtime.h"

#include <cstdio>

#include "host/output/event_fanout.h"
#include "host/output/journal_output.h"
#include "host/runtime/watch_provider.h"
#include "host/services/allocator.h"
#include "host/services/file_factory.h"
#include "host/services/path_matcher.h"
#include "host/services/sha256_provider.h"
#include "host/services/task_info_provider.h"
#include "host/storage/persistent_storage.h"
#include "host/storage/storage_serializer.h"
#include "host/util/private_directory.h"
#include "orn/file.h"
#include "pax/fim_tasks.h"
#include "pax/inotify.h"
#include "pax/integrity_monitor_publisher.h"
#include "pax/task_info.h"

namespace arvo::host {
namespace {
using app_core::task_manager::task::ITask;
}  // namespace

std::string DescribeFailure(const std::string& what, orn::result_t r) {
  return what + ": " + orn::ResultToTraceText(r);
}

std::unique_ptr<HostRuntime> HostRuntime::Create(const ModuleLoader& module,
                                                 const RuntimeSetup& setup, std::string& error) {
  std::unique_ptr<HostRuntime> runtime(new HostRuntime(module));
  if (!runtime->Init(setup, error)) return nullptr;
  return runtime;
}

HostRuntime::~HostRuntime() {
  m_publisherService.Reset();
  if (m_locator) m_locator->Clear();
}

bool HostRuntime::Init(const RuntimeSetup& setup, std::string& error) {
  if (ORN_FAILED(CreateTracer(setup.traceLevel, setup.traceFile, m_tracer, error))) return false;
  if (setup.traceTap) m_tracer->SetTap(setup.traceTap, orn::kTraceLevelWarning);
  m_locator = orn::MakeSimple<ServiceLocator>();
  m_locator->Register<orn::ITracer>(m_tracer.Get());
  m_locator->Register<orn::IAllocator>(orn::MakeSimple<Allocator>().Get());

  ScopedFd output;
  if (ORN_FAILED(OpenOutput(setup.outputFile, output, error))) return false;
  m_format = setup.format.value_or(DefaultFormatFor(output.Get()));
  m_writer = std::make_shared<LineWriter>(std::move(output));
  m_outputFile = setup.outputFile;
  m_events = orn::MakeSimple<EventOutput>(m_writer, m_format);
  std::vector<orn::RefPtr<pax::IEventPublisher>> outputs{m_events};
  outputs.insert(outputs.end(), setup.extraOutputs.begin(), setup.extraOutputs.end());
  if (setup.journal) outputs.push_back(orn::MakeSimple<JournalOutput>());
  m_publisher =
      outputs.size() == 1
          ? orn::RefPtr<pax::IEventPublisher>(m_events)
          : orn::RefPtr<pax::IEventPublisher>(orn::MakeSimple<EventFanout>(std::move(outputs)));
  m_locator->Register<pax::IEventPublisher>(m_publisher.Get());

  orn::RefPtr<pax::IPathMatcherFactory> matchers;
  if (const orn::result_t r = CreatePathMatcherFactory(m_tracer.Get(), matchers); ORN_FAILED(r)) {
    error = DescribeFailure("cannot create the path matcher factory", r);
    return false;
  }
  if (setup.progress)
    matchers = orn::MakeSimple<CountingMatcherFactory>(std::move(matchers), setup.progress);
  m_locator->Register<pax::IPathMatcherFactory>(matchers.Get());

  if (setup.onAccess) {
    orn::RefPtr<pax::IInotifyEventsProvider> provider;
    CoverageObserver observer =
        MakeCoverageResponse(m_publisher, m_tracer, setup.requestCatchUpScan);
    const orn::result_t r = CreateWatchProvider(m_tracer.Get(), setup.backend, std::move(observer),
                                                provider, m_watchBackend, &m_coverage);
    if (ORN_FAILED(r)) {
      error = DescribeFailure(m_watchBackend.description, r);
      return false;
    }
    m_locator->Register<pax::IInotifyEventsProvider>(provider.Get());
  }
  if (setup.onDemand && !AddOnDemandServices(setup, error)) return false;
  return AddPublisherService(error);
}

bool HostRuntime::AddOnDemandServices(const RuntimeSetup& setup, std::string& error) {
  orn::RefPtr<filesystem_services::ISha256HashProvider> sha256;
  orn::RefPtr<orn::IFileFactory> files;
  orn::RefPtr<orn::IPersistentStorage> storage;
  orn::RefPtr<orn::IStorageSerializer2> serializer;
  orn::RefPtr<pax::ITaskInfoProvider> taskInfo;

  pax::TaskInfo info;
  info.taskId = setup.config ? setup.config->taskId : 1;
  info.runtimeTaskId = info.taskId;
  info.displayName = setup.config ? setup.config->taskName : kDefaultTaskName;
  info.defaultName = kDefaultTaskName;

  const std::string storageFile = DefaultStorageFile();
  if (!EnsureParentDirectory(storageFile, error)) return false;
  // Each step in turn; the first failure names its service.
  std::string what = "cannot create the SHA-256 provider";
  orn::result_t r = CreateSha256Provider(sha256);
  if (ORN_SUCCEEDED(r)) {
    what = "cannot create the file factory";
    r = CreateFileFactory(files);
  }
  if (ORN_SUCCEEDED(r)) {
    what = "cannot open the persistent storage '" + storageFile + "'";
    r = CreatePersistentStorage(storageFile, m_tracer.Get(), storage);
  }
  if (ORN_SUCCEEDED(r)) {
    what = "cannot create the storage serializer";
    r = CreateStorageSerializer(serializer);
  }
  if (ORN_SUCCEEDED(r)) {
    what = "cannot create the task info provider";
    r = CreateTaskInfoProvider(info, taskInfo);
  }
  if (ORN_FAILED(r)) {
    error = DescribeFailure(what, r);
    return false;
  }
  m_locator->Register<filesystem_services::ISha256HashProvider>(sha256.Get());
  m_locator->Register<orn::IFileFactory>(files.Get(), orn::NfioFileFactoryCLSID);
  m_locator->Register<orn::IFileFactory>(files.Get());
  m_locator->Register<orn::IPersistentStorage>(storage.Get());
  m_locator->Register<orn::IStorageSerializer2>(serializer.Get());
  m_locator->Register<pax::ITaskInfoProvider>(taskInfo.Get());
  return true;
}

bool HostRuntime::AddPublisherService(std::string& error) {
  orn::IServiceLocator* locator = m_locator.Get();
  const orn::result_t r = m_module.CreateObject()(pax::fim::kIntegrityMonitorPublisherServiceClsid,
                                                  &locator, m_publisherService.Ref());
  if (ORN_FAILED(r) || !m_publisherService) {
    error = DescribeFailure("the module cannot create its publisher service", r);
    return false;
  }
  // Registered under both of its interfaces; each lookup queries the object,
  // so each gets the right sub-object.
  m_locator->Register(orn::IidOf<pax::IIntegrityMonitorPublisher>(), 0, m_publisherService.Get());
  m_locator->Register(orn::IidOf<mdr::agent::IFileIntegrityMonitorDetectEventSubscription>(), 0,
                      m_publisherService.Get());
  return true;
}

bool HostRuntime::ReopenOutput(std::string& error) const {
  if (m_outputFile.empty()) return true;
  ScopedFd fd;
  if (ORN_FAILED(OpenOutput(m_outputFile, fd, error))) return false;
  m_writer->Replace(std::move(fd));
  return true;
}

void HostRuntime::RewatchLostAreas() const {
  if (m_coverage) m_coverage->RewatchLostRoots();
}

orn::result_t HostRuntime::CreateTask(orn::clsid_t clsid, orn::RefPtr<ITask>& task,
                                      std::string& error) const {
  orn::RefPtr<orn::IObjectFactory> factory;
  orn::result_t r = m_module.GetObjectFactory()(m_locator.Get(), clsid, factory.Ref());
  if (ORN_FAILED(r) || !factory) {
    char id[16];
    std::snprintf(id, sizeof id, "0x%08X", clsid);
    error = DescribeFailure(std::string("the module offers no factory for class ") + id, r);
    return ORN_FAILED(r) ? r : orn::errors::kUnexpected;
  }
  r = factory->CreateInstance(m_locator.Get(), orn::IidOf<ITask>(), task.RefVoid());
  if (ORN_FAILED(r)) {
    error = DescribeFailure(clsid == pax::fim::kIntegrityMonitorTaskClsid
                                ? "cannot create the on-access monitor"
                                : "cannot create the on-demand monitor",
                            r);
  }
  return r;
}

}  // namespace arvo::host
