// The on-demand task as a host drives it: the real module loaded with
// dlopen, the reference host's services (storage, serializer, hashing, file
// access, path matching, task information) and recording fakes for what the
// task reports. Each scan uses a fresh task object, as a host does.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

#include <unistd.h>
#include <atomic>
#include <fstream>
#include <iterator>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sqlite3.h>

#include "app_core/task_manager/task/task.h"
#include "host/services/file_factory.h"
#include "host/services/path_matcher.h"
#include "host/services/sha256_provider.h"
#include "host/services/task_info_provider.h"
#include "host/storage/persistent_storage.h"
#include "host/storage/storage_serializer.h"
#include "orn/ref_ptr.h"
#include "pax/enumerations.h"
#include "pax/fim_tasks.h"
#include "pax/product_event.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"
#include "tests/temp_tree.h"

namespace {

using app_core::task_manager::task::ITask;
using app_core::task_manager::task::TaskStopInfo;
using arvo::test::TempDir;
using pax::ProductEvent;
using pax::settings::ODFIMSettings;
using pax::settings::ScanArea;

// The stop report, waited for on a condition.
class WaitingStopSink final
    : public orn::SimpleObject<app_core::task_manager::task::ITaskStopEvents> {
 public:
  orn::result_t OnTaskStopped(const TaskStopInfo& info) override {
    std::lock_guard lock(m_mutex);
    m_reports.push_back(info);
    m_changed.notify_all();
    return 0;
  }
  TaskStopInfo Wait() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_reports.empty(); });
    return m_reports.front();
  }
  std::size_t Count() {
    std::lock_guard lock(m_mutex);
    return m_reports.size();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<TaskStopInfo> m_reports;
};

// Holds the walk inside its first Match until released, and notes the
// name of the thread the walk runs on.
// Waits until thread `tid` of this process is blocked (state S or D).
void WaitUntilAsleep(pid_t tid) {
  const std::string statFile = "/proc/self/task/" + std::to_string(tid) + "/stat";
  while (true) {
    std::ifstream in(statFile);
    std::string stat((std::istreambuf_iterator<char>(in)), {});
    const std::size_t close = stat.rfind(')');
    if (close != std::string::npos && close + 2 < stat.size() &&
        (stat[close + 2] == 'S' || stat[close + 2] == 'D'))
      return;
    std::this_thread::yield();
  }
}

struct WalkGate {
  std::mutex mutex;
  std::condition_variable changed;
  bool armed = false, entered = false, released = false;
  std::string threadName;
  // Runs on the walking thread for each object asked about, between the
  // object's status and the reading of its content.
  std::function<void(const pax::NativePath&)> onMatch;

  void OnMatch(const pax::NativePath& path) {
    if (onMatch) onMatch(path);
    std::unique_lock lock(mutex);
    if (threadName.empty()) {
      char name[16] = {};
      prctl(PR_GET_NAME, name, 0, 0, 0);
      threadName = name;
    }
    if (!armed || entered) return;
    entered = true;
    changed.notify_all();
    changed.wait(lock, [this] { return released; });
  }
  void WaitEntered() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return entered; });
  }
  void Release() {
    std::lock_guard lock(mutex);
    released = true;
    changed.notify_all();
  }
};

class GatedMatcher final : public orn::SimpleObject<pax::IPathMatcher> {
 public:
  GatedMatcher(orn::RefPtr<pax::IPathMatcher> inner, WalkGate& gate)
      : m_inner(std::move(inner)), m_gate(gate) {}
  orn::result_t Match(const pax::NativePath& path, bool isDirectory) const override {
    m_gate.OnMatch(path);
    return m_inner->Match(path, isDirectory);
  }

 private:
  orn::RefPtr<pax::IPathMatcher> m_inner;
  WalkGate& m_gate;
};

// The host's matcher factory, its scope matchers wrapped in a GatedMatcher.
class GatedMatcherFactory final : public orn::SimpleObject<pax::IPathMatcherFactory> {
 public:
  GatedMatcherFactory(orn::RefPtr<pax::IPathMatcherFactory> inner, WalkGate& gate)
      : m_inner(std::move(inner)), m_gate(gate) {}
  orn::result_t CreateGlobMatcher(const std::vector<pax::NativePath>& globs,
                                  pax::IPathMatcher** matcher) override {
    return m_inner->CreateGlobMatcher(globs, matcher);
  }
  orn::result_t CreatePrefixMatcher(const std::vector<pax::NativePath>& roots,
                                    pax::IPathMatcher** matcher) override {
    return m_inner->CreatePrefixMatcher(roots, matcher);
  }
  orn::result_t CreateFntreeMatcher(const pax::settings::ScanScopeSettings& scope,
                                    const pax::settings::ExclusionSettings& exclusions,
                                    pax::IPathMatcher** matcher) override {
    orn::RefPtr<pax::IPathMatcher> inner;
    const orn::result_t r = m_inner->CreateFntreeMatcher(scope, exclusions, inner.Ref());
    if (ORN_FAILED(r)) return r;
    orn::MakeSimple<GatedMatcher>(inner, m_gate).CopyTo(reinterpret_cast<GatedMatcher**>(matcher));
    return 0;
  }

 private:
  orn::RefPtr<pax::IPathMatcherFactory> m_inner;
  WalkGate& m_gate;
};

std::u16string Text16(const pax::FieldValue& v) {
  return v.Tag() == pax::FieldTag::kText16 ? v.AsText16() : u"";
}

class OnDemandModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(module.Ok()) << module.Error();
    setenv("ARVO_FIM_DB", (dir / "fim.db").c_str(), 1);
    arvo::test::MakeDir(dir / "etc");
    arvo::test::WriteFile(dir / "etc/passwd", "root:x:0:0");
    arvo::test::WriteFile(dir / "etc/hosts", "127.0.0.1 localhost");
    arvo::test::MakeDir(dir / "etc/ssl");
    arvo::test::WriteFile(dir / "etc/ssl/cert", "cert");
    arvo::test::MakeDir(dir / "bin");
    arvo::test::WriteFile(dir / "bin/sh", "#!");

    orn::RefPtr<orn::IObject> service;
    ASSERT_EQ(module.CreateObject(pax::fim::kIntegrityMonitorPublisherServiceClsid,
                                  host.locator.Get(), service.Ref()),
              0);
    orn::RefPtr<pax::IIntegrityMonitorPublisher> publisher;
    ASSERT_EQ(orn::QueryInterface(service.Get(), publisher), 0);
    orn::RefPtr<mdr::agent::IFileIntegrityMonitorDetectEventSubscription> subscription;
    ASSERT_EQ(orn::QueryInterface(service.Get(), subscription), 0);
    ASSERT_EQ(subscription->Subscribe(detections.Get()), 0);
    host.locator->Provide(publisher.Get());
    host.locator->Provide(events.Get());

    orn::RefPtr<filesystem_services::ISha256HashProvider> sha;
    ASSERT_EQ(arvo::host::CreateSha256Provider(sha), 0);
    host.locator->Provide(sha.Get());
    orn::RefPtr<orn::IFileFactory> files;
    ASSERT_EQ(arvo::host::CreateFileFactory(files), 0);
    host.locator->Provide(files.Get(), orn::NfioFileFactoryCLSID);
    ASSERT_EQ(arvo::host::CreatePersistentStorage(dir / "storage.dat", nullptr, storage), 0);
    host.locator->Provide(storage.Get());
    orn::RefPtr<orn::IStorageSerializer2> serializer;
    ASSERT_EQ(arvo::host::CreateStorageSerializer(serializer), 0);
    host.locator->Provide(serializer.Get());
    orn::RefPtr<pax::IPathMatcherFactory> matchers;
    ASSERT_EQ(arvo::host::CreatePathMatcherFactory(nullptr, matchers), 0);
    host.locator->Provide(static_cast<pax::IPathMatcherFactory*>(
        orn::MakeSimple<GatedMatcherFactory>(matchers, gate).Get()));
    orn::RefPtr<pax::ITaskInfoProvider> taskInfo;
    ASSERT_EQ(arvo::host::CreateTaskInfoProvider({7, 99, u"Nightly", u"Default"}, taskInfo), 0);
    host.locator->Provide(taskInfo.Get());

    settings.scanAreas = {ScanArea{u"etc", true, dir / "etc", {}},
                          ScanArea{u"bin", true, dir / "bin", {}}};
    settings.computeContentHash = true;
  }
  void TearDown() override { unsetenv("ARVO_FIM_DB"); }

  orn::RefPtr<ITask> NewTask(orn::result_t expected = 0) {
    orn::RefPtr<orn::IObjectFactory> factory;
    EXPECT_EQ(module.GetObjectFactory(host.locator.Get(),
                                      pax::fim::kOnDemandIntegrityMonitorTaskClsid, factory.Ref()),
              0);
    orn::RefPtr<ITask> task;
    EXPECT_EQ(factory->CreateInstance(host.locator.Get(), ITask::kIid, task.RefVoid()), expected);
    if (task) {
      orn::RefPtr<pax::fim::IOnDemandIntegrityMonitorTaskConstruct> construct;
      EXPECT_EQ(orn::QueryInterface(task.Get(), construct), 0);
      EXPECT_EQ(construct->Construct(&settings), 0);
    }
    return task;
  }

  // One complete scan with the current `settings`: its report and events.
  TaskStopInfo Scan() {
    eventsBefore = events->Events().size();
    orn::RefPtr<ITask> task = NewTask();
    auto sink = orn::MakeSimple<WaitingStopSink>();
    EXPECT_EQ(task->Start(1, sink.Get()), 0);
    const TaskStopInfo report = sink->Wait();
    EXPECT_EQ(task->Stop(), 0);
    return report;
  }
  std::vector<ProductEvent> ScanEvents() const {
    const std::vector<ProductEvent> all = events->Events();
    return {all.begin() + eventsBefore, all.end()};
  }
  std::size_t Count(std::uint32_t type) const {
    std::size_t n = 0;
    for (const ProductEvent& e : ScanEvents()) n += e.eventType == type;
    return n;
  }
  // Change events of the last scan for `path` with modification `kind`.
  std::size_t Changes(const std::string& path, std::uint32_t kind) const {
    std::size_t n = 0;
    for (const ProductEvent& e : ScanEvents()) {
      bool hasKind = false, hasPath = false;
      for (const pax::EventField& f : e.fields) {
        hasKind |= f.fieldId == pax::field::kFileModificationType && f.value.AsU32() == kind;
        hasPath |= f.fieldId == pax::field::kPath && f.value.AsText8() == path;
      }
      n += e.eventType == pax::event_type::kSystemIntegrityIssue && hasKind && hasPath;
    }
    return n;
  }

  arvo::test::LoadedModule module{ARVO_MODULE_PATH};
  TempDir dir;
  WalkGate gate;
  arvo::test::FakeHost host;
  orn::RefPtr<arvo::test::RecordingEventPublisher> events =
      orn::MakeSimple<arvo::test::RecordingEventPublisher>();
  orn::RefPtr<arvo::test::RecordingDetectReceiver> detections =
      orn::MakeSimple<arvo::test::RecordingDetectReceiver>();
  orn::RefPtr<orn::IPersistentStorage> storage;
  ODFIMSettings settings;
  std::size_t eventsBefore = 0;
};

using Report = std::pair<orn::result_t, std::u16string>;
Report R(const TaskStopInfo& info) { return {info.result, info.reason}; }
const Report kCompleted{0, u"Task is completed"};

TEST_F(OnDemandModuleTest, FirstRunBuildsBaselinesAndAnUnchangedRerunIsOk) {
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(gate.threadName, "arvoIntMonTask");
  EXPECT_EQ(Count(pax::event_type::kBaselineBuilt), 2u);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 0u);
  EXPECT_TRUE(host.tracer->Contains("No previous settings were found"));

  EXPECT_EQ(R(Scan()), kCompleted);
  ASSERT_EQ(ScanEvents().size(), 1u);
  const ProductEvent ok = ScanEvents()[0];
  EXPECT_EQ(ok.eventType, pax::event_type::kSystemIntegrityOk);
  EXPECT_EQ(ok.severity, pax::severity::kInformational);
  std::vector<std::u16string> texts;
  for (const pax::EventField& f : ok.fields) texts.push_back(Text16(f.value));
  EXPECT_NE(std::find(texts.begin(), texts.end(), u"Nightly"), texts.end());
  EXPECT_NE(std::find(texts.begin(), texts.end(), u"ODFIM"), texts.end());
  EXPECT_TRUE(host.tracer->Contains("Settings were not changed"));
}

TEST_F(OnDemandModuleTest, EachChangeKindIsReportedOnce) {
  arvo::test::WriteFile(dir / "etc/rename-me", "r");
  arvo::test::WriteFile(dir / "etc/move-me", "m");
  arvo::test::WriteFile(dir / "etc/delete-me", "d");
  ASSERT_EQ(R(Scan()), kCompleted);

  arvo::test::WriteFile(dir / "etc/passwd", "root:y:0:0");  // same size, new content
  ASSERT_EQ(chmod((dir / "etc/hosts").c_str(), 0600), 0);
  arvo::test::WriteFile(dir / "etc/new", "n");
  ASSERT_EQ(unlink((dir / "etc/delete-me").c_str()), 0);
  ASSERT_EQ(rename((dir / "etc/rename-me").c_str(), (dir / "etc/renamed").c_str()), 0);
  ASSERT_EQ(rename((dir / "etc/move-me").c_str(), (dir / "etc/ssl/move-me").c_str()), 0);
  EXPECT_EQ(R(Scan()), kCompleted);

  using namespace pax::modification;
  EXPECT_EQ(Changes(dir / "etc/passwd", kObjectContentChanged), 1u);
  EXPECT_EQ(Changes(dir / "etc/hosts", kObjectAttributesChanged), 1u);
  EXPECT_EQ(Changes(dir / "etc/new", kObjectCreated), 1u);
  EXPECT_EQ(Changes(dir / "etc/delete-me", kObjectDeleted), 1u);
  EXPECT_EQ(Changes(dir / "etc/renamed", kObjectRenamed), 1u);
  EXPECT_EQ(Changes(dir / "etc/ssl/move-me", kObjectMoved), 1u);
  EXPECT_EQ(
      Changes(dir / "etc/renamed", kObjectCreated) + Changes(dir / "etc/rename-me", kObjectDeleted),
      0u);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 0u);
  EXPECT_EQ(detections->Count(), 2u);  // the rename and the move, by their former paths
}

TEST_F(OnDemandModuleTest, SettingsChangeForcesRebuildAndRemovedAreasAreCollected) {
  settings.computeContentHash = false;
  ASSERT_EQ(R(Scan()), kCompleted);

  settings.computeContentHash = true;
  settings.scanAreas.pop_back();
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_TRUE(host.tracer->Contains("Global settings were changed"));
  EXPECT_TRUE(host.tracer->Contains("Force rebuild baseline for " + dir / "etc"));
  EXPECT_TRUE(host.tracer->Contains("scan scope '" + dir / "bin" + "' was deleted"));
  EXPECT_EQ(Count(pax::event_type::kBaselineBuilt), 1u);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityIssue), 0u);

  // The removed area comes back without a baseline; the other keeps its own.
  settings.scanAreas.push_back(ScanArea{u"bin", true, dir / "bin", {}});
  host.tracer->Clear();
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Count(pax::event_type::kBaselineBuilt), 1u);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityIssue), 0u);
}

TEST_F(OnDemandModuleTest, AutomaticBaselineUpdateFoldsChangesIn) {
  settings.autoUpdateBaseline = true;
  ASSERT_EQ(R(Scan()), kCompleted);
  arvo::test::WriteFile(dir / "bin/ls", "ls");
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Changes(dir / "bin/ls", pax::modification::kObjectCreated), 1u);
  EXPECT_EQ(Count(pax::event_type::kBaselineBuilt), 2u);
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityIssue), 0u);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 1u);
}

TEST_F(OnDemandModuleTest, StopDuringAWalkReportsInterruptedAndKeepsNothing) {
  for (int i = 0; i < 300; ++i) arvo::test::WriteFile(dir / ("etc/f" + std::to_string(i)), "");
  gate.armed = true;
  orn::RefPtr<ITask> task = NewTask();
  auto sink = orn::MakeSimple<WaitingStopSink>();
  ASSERT_EQ(task->Start(42, sink.Get()), 0);
  gate.WaitEntered();
  std::atomic<pid_t> stopperTid{0};
  std::thread stopper([&] {
    stopperTid = static_cast<pid_t>(::syscall(SYS_gettid));
    EXPECT_EQ(task->Stop(), 0);
  });
  host.tracer->WaitFor("OnDemandIntegrityMonitorTask::Stop()");
  // After its entry line Stop raises the stop flag and then waits for the
  // gated run to end: once the stopper sleeps, the flag is up and the walk
  // must end at its next entry.
  WaitUntilAsleep(stopperTid.load());
  gate.Release();
  stopper.join();  // Stop returns once the run has ended
  EXPECT_EQ(R(sink->Wait()), Report(1, u"Task is interrupted"));
  EXPECT_EQ(sink->Count(), 1u);
  EXPECT_EQ(Count(pax::event_type::kBaselineBuilt), 0u);
  task.Reset();

  gate.armed = false;
  host.tracer->Clear();
  EXPECT_EQ(R(Scan()), kCompleted);  // nothing of the interrupted run was kept
  EXPECT_TRUE(host.tracer->Contains("No previous settings were found"));
  EXPECT_EQ(Count(pax::event_type::kBaselineBuilt), 2u);
}

TEST_F(OnDemandModuleTest, StopRightAfterStartEndsEveryRun) {
  orn::RefPtr<ITask> task = NewTask();
  // The run may not have begun when Stop comes; Stop must not wait for it
  // in a way that keeps it from beginning.
  for (app_core::task_manager::task::TaskSessionId session = 1; session <= 20; ++session) {
    auto sink = orn::MakeSimple<WaitingStopSink>();
    ASSERT_EQ(task->Start(session, sink.Get()), 0);
    ASSERT_EQ(task->Stop(), 0);
    EXPECT_EQ(sink->Count(), 1u);
  }
}

TEST_F(OnDemandModuleTest, PauseResumeAndTheRefusalsOfEachState) {
  for (int i = 0; i < 300; ++i) arvo::test::WriteFile(dir / ("etc/f" + std::to_string(i)), "");
  gate.armed = true;
  orn::RefPtr<ITask> task = NewTask();
  auto sink = orn::MakeSimple<WaitingStopSink>();
  EXPECT_EQ(task->Resume(), orn::errors::kInvalidState);  // Stopped
  EXPECT_EQ(task->Stop(), orn::errors::kInvalidState);
  ASSERT_EQ(task->Start(42, sink.Get()), 0);
  gate.WaitEntered();
  std::atomic<pid_t> pauserTid{0};
  std::thread pauser([&] {
    pauserTid = static_cast<pid_t>(::syscall(SYS_gettid));
    EXPECT_EQ(task->Pause(), 0);
  });
  host.tracer->WaitFor("Request pause and wait");
  WaitUntilAsleep(pauserTid.load());  // the pause is requested: the walk parks at its next entry
  gate.Release();
  pauser.join();  // the worker has parked
  EXPECT_TRUE(host.tracer->Contains("odfim\tThread suspended"));

  EXPECT_EQ(task->Stop(), orn::errors::kInvalidState);
  EXPECT_TRUE(host.tracer->Contains("odfim\tTask is not started, session id: 42"));
  EXPECT_EQ(task->Pause(), orn::errors::kInvalidState);
  EXPECT_EQ(sink->Count(), 0u);
  EXPECT_EQ(task->Resume(), 0);
  EXPECT_TRUE(host.tracer->Contains("odfim\tResumed"));
  EXPECT_EQ(task->Resume(), orn::errors::kInvalidState);
  EXPECT_TRUE(host.tracer->Contains("odfim\tTask is not suspended"));

  EXPECT_EQ(R(sink->Wait()), kCompleted);
  EXPECT_EQ(task->Start(43, sink.Get()), orn::errors::kInvalidState);  // still Started
  EXPECT_TRUE(host.tracer->Contains("odfim\tTask is not stopped, session id: 43"));
  EXPECT_EQ(task->Stop(), 0);
  EXPECT_EQ(sink->Count(), 1u);
}

TEST_F(OnDemandModuleTest, PreviousSettingsAreOneNodeAndAnUnreadableOneFailsTheRun) {
  ASSERT_EQ(R(Scan()), kCompleted);
  orn::RefPtr<orn::IStorageNode> node;
  ASSERT_EQ(storage->AppendNode("PreviousSettings", node.Ref()), 0);  // a stray second node
  ASSERT_EQ(R(Scan()), kCompleted);
  int nodes = 0;
  while (ORN_SUCCEEDED(storage->RemoveNode("PreviousSettings"))) ++nodes;
  EXPECT_EQ(nodes, 1);

  ASSERT_EQ(storage->AppendNode("PreviousSettings", node.Ref()), 0);
  ASSERT_EQ(node->SetValue({0xde, 0xad}), 0);
  EXPECT_EQ(R(Scan()), Report(orn::errors::kUnspecified, u"Task is completed with error"));
  EXPECT_TRUE(
      host.tracer->Contains("Cannot deserialize ODFIMSettings struct", orn::kTraceLevelError));
  EXPECT_TRUE(ScanEvents().empty());
}

TEST_F(OnDemandModuleTest, ConstructionLooksUpServicesInOrderAndFailsOnTheFirstMissing) {
  host.locator->Remove(orn::IStorageSerializer2::kIid);
  const std::size_t before = host.locator->Lookups().size();
  EXPECT_FALSE(NewTask(orn::errors::kNoInterface));
  const std::vector<orn::iid_t> lookups = host.locator->Lookups();
  const std::vector<orn::iid_t> expected = {orn::IAllocator::kIid,
                                            orn::IAllocator::kIid,
                                            orn::ITracer::kIid,
                                            pax::IEventPublisher::kIid,
                                            pax::IIntegrityMonitorPublisher::kIid,
                                            filesystem_services::ISha256HashProvider::kIid,
                                            orn::IFileFactory::kIid,
                                            orn::IPersistentStorage::kIid,
                                            orn::IStorageSerializer2::kIid};
  EXPECT_EQ(std::vector<orn::iid_t>(lookups.begin() + before, lookups.end()), expected);
  EXPECT_TRUE(host.tracer->Contains("Cannot get orn::IStorageSerializer2 interface",
                                    orn::kTraceLevelError));

  setenv("ARVO_FIM_DB", (dir / "missing/fim.db").c_str(), 1);
  EXPECT_FALSE(NewTask(orn::errors::kUnspecified));
  EXPECT_TRUE(host.tracer->Contains("Cannot open db: ", orn::kTraceLevelError));
}

// ---------------------------------------------------------------------------
// Truthful reports on a real (ext4) tree: what changed is what is reported.

std::uint64_t InodeOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Whether the change events of the last scan for `path` carry field `id`.
bool HasField(const std::vector<ProductEvent>& events, const std::string& path, std::uint32_t id) {
  for (const ProductEvent& e : events) {
    bool hasPath = false, hasField = false;
    for (const pax::EventField& f : e.fields) {
      hasPath |= f.fieldId == pax::field::kPath && f.value.AsText8() == path;
      hasField |= f.fieldId == id;
    }
    if (hasPath && hasField) return true;
  }
  return false;
}

// Makes an object at `path` with `make` until it gets inode number `wanted`
// (freed just before): ext4 hands out the lowest free number of the group,
// and other processes may have freed lower ones; each miss is moved out of
// the area into `spare`, keeping its number taken. False when not reached.
bool CreateWithInode(const std::string& path, std::uint64_t wanted, const std::string& spare,
                     const std::function<void()>& make) {
  for (int attempt = 0; attempt < 200; ++attempt) {
    make();
    if (InodeOf(path) == wanted) return true;
    const std::string aside =
        spare + "/" + std::to_string(attempt) + "-" + std::to_string(InodeOf(path));
    if (::rename(path.c_str(), aside.c_str()) != 0) return false;
  }
  return false;
}

// ext4 hands a freed inode number to the next new object; the rows, keyed by
// (device, inode), must still tell the new object from the old one. (tmpfs
// does not reuse numbers this way: the test skips where none is reused.)
// Other processes creating files on the same file system may take a freed
// number first, so each case has a few candidates.
TEST_F(OnDemandModuleTest, AReusedInodeNumberIsADeletionAndACreation) {
  const std::string spare = dir / "spare";
  arvo::test::MakeDir(spare);
  constexpr int kCandidates = 6;
  for (int i = 0; i < kCandidates; ++i) {
    const std::string n = std::to_string(i);
    arvo::test::WriteFile(dir / ("etc/a" + n), "old");
    ASSERT_EQ(::symlink("passwd", (dir / ("etc/link" + n)).c_str()), 0);
    arvo::test::WriteFile(dir / ("etc/replaced" + n), "v1");
  }
  ASSERT_EQ(R(Scan()), kCompleted);

  // Deletes `before` and makes `after` with `make` until `after` takes the
  // number `before` had; returns the candidate's suffix, or -1.
  auto reuse = [&](const std::string& before, const std::string& after,
                   const std::function<void(const std::string&)>& make) {
    for (int i = 0; i < kCandidates; ++i) {
      const std::string n = std::to_string(i);
      const std::uint64_t number = InodeOf(dir / (before + n));
      EXPECT_EQ(::unlink((dir / (before + n)).c_str()), 0);
      if (CreateWithInode(dir / (after + n), number, spare, [&] { make(dir / (after + n)); }))
        return i;
    }
    return -1;
  };
  // rm t/a; echo new > t/b
  const int b =
      reuse("etc/a", "etc/b", [](const std::string& p) { arvo::test::WriteFile(p, "new"); });
  // A directory that takes a deleted symbolic link's number.
  const int d = reuse("etc/link", "etc/dir", [](const std::string& p) { arvo::test::MakeDir(p); });
  // A file replaced by a new inode that takes the old one's number.
  const int r = reuse("etc/replaced", "etc/replaced",
                      [](const std::string& p) { arvo::test::WriteFile(p, "v2, longer"); });
  if (b < 0 || d < 0 || r < 0)
    GTEST_SKIP() << "this file system did not reuse inode numbers (" << b << d << r << ")";

  EXPECT_EQ(R(Scan()), kCompleted);
  using namespace pax::modification;
  const std::string bn = std::to_string(b), dn = std::to_string(d), rn = std::to_string(r);
  EXPECT_EQ(Changes(dir / ("etc/a" + bn), kObjectDeleted), 1u);
  EXPECT_EQ(Changes(dir / ("etc/b" + bn), kObjectCreated), 1u);
  EXPECT_EQ(Changes(dir / ("etc/link" + dn), kObjectDeleted), 1u);
  EXPECT_EQ(Changes(dir / ("etc/dir" + dn), kObjectCreated), 1u);
  EXPECT_EQ(Changes(dir / ("etc/replaced" + rn), kObjectDeleted), 1u);
  EXPECT_EQ(Changes(dir / ("etc/replaced" + rn), kObjectCreated), 1u);
  for (const std::string& path : {"etc/b" + bn, "etc/dir" + dn, "etc/replaced" + rn}) {
    for (std::uint32_t kind : {kObjectRenamed, kObjectMoved, kObjectContentChanged,
                               kObjectAttributesChanged, kObjectAccessControlAttributesChanged})
      EXPECT_EQ(Changes(dir / path, kind), 0u) << path << " kind " << kind;
  }
  EXPECT_EQ(detections->Count(), 0u);  // nothing was moved
}

// The area's own directory is an object of the area.
TEST_F(OnDemandModuleTest, ChangesOfTheAreaDirectoryItselfAreReported) {
  ASSERT_EQ(R(Scan()), kCompleted);
  ASSERT_EQ(::chmod((dir / "etc").c_str(), 0777), 0);
  const bool owned = ::chown((dir / "etc").c_str(), 4242, 4242) == 0;
  const std::string acl = "setfacl -m u:12345:rx '" + dir / "etc" + "' 2>/dev/null";
  const bool aclSet = std::system(acl.c_str()) == 0;
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Changes(dir / "etc", pax::modification::kObjectAttributesChanged), 1u);
  EXPECT_TRUE(HasField(ScanEvents(), dir / "etc", pax::field::kObjectAttributes));
  if (owned) {
    EXPECT_TRUE(HasField(ScanEvents(), dir / "etc", pax::field::kOwnerUserId));
  }
  if (aclSet) {
    EXPECT_EQ(Changes(dir / "etc", pax::modification::kObjectAccessControlAttributesChanged), 1u);
  }
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 0u);
}

// A default ACL in the kernel's extended-attribute form: owner rwx, user
// `uid` rwx, group r-x, mask rwx, others r-x.
std::vector<std::uint8_t> DefaultAcl(std::uint32_t uid) {
  std::vector<std::uint8_t> blob;
  const auto put = [&blob](std::uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) blob.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  };
  struct Entry {
    std::uint16_t tag, perm;
    std::uint32_t id;
  };
  constexpr std::uint32_t kNoId = 0xFFFFFFFF;
  const Entry entries[] = {
      {0x01, 7, kNoId}, {0x02, 7, uid}, {0x04, 5, kNoId}, {0x10, 7, kNoId}, {0x20, 5, kNoId}};
  put(2, 4);  // version
  for (const Entry& entry : entries) {
    put(entry.tag, 2);
    put(entry.perm, 2);
    put(entry.id, 4);
  }
  return blob;
}

// 0 set; 1 the file system keeps no ACLs; -1 another failure (errno).
int SetDefaultAcl(const std::string& directory, std::uint32_t uid) {
  const std::vector<std::uint8_t> acl = DefaultAcl(uid);
  if (::setxattr(directory.c_str(), "system.posix_acl_default", acl.data(), acl.size(), 0) == 0)
    return 0;
  return errno == ENOTSUP ? 1 : -1;
}

// What a directory's new entries inherit is access control of its own: a
// default ACL set or changed is reported as such (once, though the object's
// change time moves too), also after the baseline took the previous one in.
TEST_F(OnDemandModuleTest, ADefaultAclSetOrChangedIsAnAccessControlChange) {
  using pax::modification::kObjectAccessControlAttributesChanged;
  settings.autoUpdateBaseline = true;  // each scan's snapshot becomes the next one's baseline
  ASSERT_EQ(R(Scan()), kCompleted);
  const int set = SetDefaultAcl(dir / "etc/ssl", 7);
  if (set == 1) GTEST_SKIP() << "no ACLs on this file system";
  ASSERT_EQ(set, 0) << std::strerror(errno);
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Changes(dir / "etc/ssl", kObjectAccessControlAttributesChanged), 1u);
  EXPECT_EQ(Changes(dir / "etc/ssl", pax::modification::kObjectAttributesChanged), 1u);

  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityIssue), 0u);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 1u);

  ASSERT_EQ(SetDefaultAcl(dir / "etc/ssl", 8), 0) << std::strerror(errno);
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Changes(dir / "etc/ssl", kObjectAccessControlAttributesChanged), 1u);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityIssue), 2u);  // and the change time
}

// A baseline written before default ACLs were recorded does not know them:
// after the upgrade, an object whose row comes back for another change does
// not report its default ACL as changed.
TEST_F(OnDemandModuleTest, ABaselineFromBeforeDefaultAclsWereRecordedReportsNoneOfThem) {
  const int set = SetDefaultAcl(dir / "etc/ssl", 7);
  if (set == 1) GTEST_SKIP() << "no ACLs on this file system";
  ASSERT_EQ(set, 0) << std::strerror(errno);
  ASSERT_EQ(R(Scan()), kCompleted);
  // The tables as the previous version left them: without the column.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir / "fim.db").c_str(), &db), SQLITE_OK);
  const int dropped = sqlite3_exec(db,
                                   "ALTER TABLE Baseline DROP COLUMN acl_default; ALTER TABLE "
                                   "CurrentSnaphot DROP COLUMN acl_default",
                                   nullptr, nullptr, nullptr);
  sqlite3_close(db);
  ASSERT_EQ(dropped, SQLITE_OK);

  ASSERT_EQ(::chmod((dir / "etc/ssl").c_str(), 0700), 0);
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Changes(dir / "etc/ssl", pax::modification::kObjectAttributesChanged), 1u);
  EXPECT_EQ(Changes(dir / "etc/ssl", pax::modification::kObjectAccessControlAttributesChanged), 0u);
}

// touch -d: the content is the same, the modification time is not.
TEST_F(OnDemandModuleTest, AModificationTimeSetBackIsReportedAsSuch) {
  ASSERT_EQ(R(Scan()), kCompleted);
  const timespec times[2] = {{0, UTIME_OMIT}, {978307200, 0}};  // 2001-01-01
  ASSERT_EQ(::utimensat(AT_FDCWD, (dir / "etc/hosts").c_str(), times, 0), 0);
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Changes(dir / "etc/hosts", pax::modification::kObjectAttributesChanged), 1u);
  EXPECT_TRUE(HasField(ScanEvents(), dir / "etc/hosts", pax::field::kLastModificationTime));
  EXPECT_EQ(Changes(dir / "etc/hosts", pax::modification::kObjectContentChanged), 0u);
}

// With access times reported, a scan must not report its own reads.
TEST_F(OnDemandModuleTest, AScanDoesNotReportTheAccessTimesOfItsOwnReads) {
  settings.reportAccessTime = true;
  // Access times older than the modification times: relatime would update
  // them on the next read.
  const timespec times[2] = {{946684800, 0}, {0, UTIME_OMIT}};
  for (const char* path : {"etc", "etc/ssl", "bin", "etc/passwd", "etc/hosts"})
    ASSERT_EQ(::utimensat(AT_FDCWD, (dir / path).c_str(), times, 0), 0);
  ASSERT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(R(Scan()), kCompleted);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityIssue), 0u);
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 1u);
}

// A file replaced atomically after its status was taken and before its
// content is read: the run completes and records the file that was read.
TEST_F(OnDemandModuleTest, AFileReplacedBetweenItsStatusAndItsOpenIsRecordedAsTheNewFile) {
  settings.autoUpdateBaseline = true;  // each scan's snapshot becomes the next one's baseline
  ASSERT_EQ(R(Scan()), kCompleted);
  arvo::test::MakeDir(dir / "staging");
  const std::string target = dir / "etc/hosts";
  bool replaced = false;
  gate.onMatch = [&](const pax::NativePath& path) {
    if (path != target || replaced) return;
    replaced = true;
    arvo::test::WriteFile(dir / "staging/hosts", "::1 localhost, a longer line");
    ASSERT_EQ(::rename((dir / "staging/hosts").c_str(), target.c_str()), 0);
  };
  EXPECT_EQ(R(Scan()), kCompleted);
  gate.onMatch = nullptr;
  ASSERT_TRUE(replaced);
  EXPECT_TRUE(host.tracer->Contains("'" + target + "' was replaced before it could be read"));
  EXPECT_TRUE(host.tracer->Texts(orn::kTraceLevelError).empty());
  // What was recorded is the new file: a third scan finds nothing new about
  // it (only the area directory's own times, changed by the rename after
  // they were taken).
  EXPECT_EQ(R(Scan()), kCompleted);
  for (std::uint32_t kind = 0; kind <= pax::modification::kUnknown; ++kind)
    EXPECT_EQ(Changes(target, kind), 0u) << "kind " << kind;
}

// Files replaced atomically (an editor's save, a package upgrade) while the
// walk runs: every run completes, and the files come back as what they are.
TEST_F(OnDemandModuleTest, AReplaceLoopRacingTheWalkNeverFailsTheRun) {
  // Few files replaced often: each is replaced about every half millisecond,
  // far less often than a snapshot takes to stat, open and stat it again.
  constexpr int kFiles = 10;
  for (int i = 0; i < kFiles; ++i)
    arvo::test::WriteFile(dir / ("etc/r" + std::to_string(i)), "version 0");
  std::atomic<bool> done{false};
  std::atomic<int> replacements{0};
  // Each version is written outside the area and renamed into it: a file
  // that vanishes while the walk reads its directory is another matter
  // (it fails the area, as an object that cannot be stat'ed).
  arvo::test::MakeDir(dir / "staging");
  std::thread writer([&] {
    for (int version = 1; !done; ++version) {
      const std::string name = "r" + std::to_string(version % kFiles);
      const std::string staged = dir / ("staging/" + name);
      arvo::test::WriteFile(staged, "version " + std::to_string(version));
      (void)::rename(staged.c_str(), (dir / ("etc/" + name)).c_str());
      ++replacements;
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  });
  std::vector<Report> reports;
  for (int scan = 0; scan < 8; ++scan) reports.push_back(R(Scan()));
  done = true;
  writer.join();
  for (const Report& report : reports) EXPECT_EQ(report, kCompleted);
  EXPECT_GT(replacements.load(), 0);
  EXPECT_TRUE(host.tracer->Texts(orn::kTraceLevelError).empty());
}

}  // namespace
