// The on-demand task with host services that fail on demand: the real module
// and the reference host's services, each wrapped in a decorator of
// fault_services.h. A run that meets a fault says so in its stop report and
// keeps nothing half-written: a walk that fails leaves the database as it
// was, a save that fails leaves the previous settings in the storage. The
// next run, faults off, behaves as if the failed run had not happened.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "host/services/file_factory.h"
#include "host/services/path_matcher.h"
#include "host/services/sha256_provider.h"
#include "host/services/task_info_provider.h"
#include "host/storage/persistent_storage.h"
#include "host/storage/storage_serializer.h"
#include "pax/enumerations.h"
#include "pax/fim_tasks.h"
#include "settings/fim_settings_serial.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"
#include "tests/module/fault_services.h"
#include "tests/sqlite_probe.h"
#include "tests/temp_tree.h"

namespace {

using app_core::task_manager::task::ITask;
using app_core::task_manager::task::TaskStopInfo;
using arvo::test::Faults;
using pax::ProductEvent;
using pax::settings::ODFIMSettings;
using pax::settings::ScanArea;
namespace modification = pax::modification;

const std::u16string kFailed = u"Task is completed with error";

class OnDemandFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(module.Ok()) << module.Error();
    setenv("ARVO_FIM_DB", db.c_str(), 1);
    arvo::test::MakeDir(dir / "etc");
    arvo::test::MakeDir(dir / "etc/ssl");
    arvo::test::WriteFile(dir / "etc/passwd", "root:x:0:0");
    arvo::test::WriteFile(dir / "etc/hosts", "127.0.0.1 localhost");
    arvo::test::WriteFile(dir / "etc/ssl/cert", "cert");
    ProvideServices();
    settings.scanAreas = {ScanArea{u"etc", true, dir / "etc", {}}};
    settings.computeContentHash = true;
  }
  void TearDown() override { unsetenv("ARVO_FIM_DB"); }

  void ProvideServices() {
    orn::RefPtr<orn::IObject> service;
    ASSERT_EQ(module.CreateObject(pax::fim::kIntegrityMonitorPublisherServiceClsid,
                                  host.locator.Get(), service.Ref()),
              0);
    orn::RefPtr<pax::IIntegrityMonitorPublisher> publisher;
    ASSERT_EQ(orn::QueryInterface(service.Get(), publisher), 0);
    host.locator->Provide(publisher.Get());
    host.locator->Provide(events.Get());

    orn::RefPtr<filesystem_services::ISha256HashProvider> sha;
    ASSERT_EQ(arvo::host::CreateSha256Provider(sha), 0);
    host.locator->Provide(static_cast<filesystem_services::ISha256HashProvider*>(
        orn::MakeSimple<arvo::test::FaultyHashProvider>(sha, faults).Get()));
    orn::RefPtr<orn::IFileFactory> files;
    ASSERT_EQ(arvo::host::CreateFileFactory(files), 0);
    host.locator->Provide(static_cast<orn::IFileFactory*>(
                              orn::MakeSimple<arvo::test::FaultyFileFactory>(files, faults).Get()),
                          orn::NfioFileFactoryCLSID);
    ASSERT_EQ(arvo::host::CreatePersistentStorage(dir / "storage.dat", nullptr, storage), 0);
    host.locator->Provide(static_cast<orn::IPersistentStorage*>(
        orn::MakeSimple<arvo::test::FaultyStorage>(storage, faults).Get()));
    ASSERT_EQ(arvo::host::CreateStorageSerializer(serializer), 0);
    host.locator->Provide(static_cast<orn::IStorageSerializer2*>(
        orn::MakeSimple<arvo::test::FaultySerializer>(serializer, faults).Get()));
    orn::RefPtr<pax::IPathMatcherFactory> matchers;
    ASSERT_EQ(arvo::host::CreatePathMatcherFactory(nullptr, matchers), 0);
    host.locator->Provide(matchers.Get());
    orn::RefPtr<pax::ITaskInfoProvider> taskInfo;
    ASSERT_EQ(arvo::host::CreateTaskInfoProvider({7, 99, u"Nightly", u"Default"}, taskInfo), 0);
    host.locator->Provide(taskInfo.Get());
  }

  // One complete scan with a fresh task, as a host runs it.
  TaskStopInfo Scan() {
    eventsBefore = events->Events().size();
    orn::RefPtr<orn::IObjectFactory> factory;
    EXPECT_EQ(module.GetObjectFactory(host.locator.Get(),
                                      pax::fim::kOnDemandIntegrityMonitorTaskClsid, factory.Ref()),
              0);
    orn::RefPtr<ITask> task;
    EXPECT_EQ(factory->CreateInstance(host.locator.Get(), ITask::kIid, task.RefVoid()), 0);
    orn::RefPtr<pax::fim::IOnDemandIntegrityMonitorTaskConstruct> construct;
    EXPECT_EQ(orn::QueryInterface(task.Get(), construct), 0);
    EXPECT_EQ(construct->Construct(&settings), 0);
    auto sink = orn::MakeSimple<arvo::test::RecordingStopSink>();
    EXPECT_EQ(task->Start(1, sink.Get()), 0);
    const TaskStopInfo report = sink->WaitForCount(1);
    EXPECT_EQ(task->Stop(), 0);
    EXPECT_EQ(sink->Reports().size(), 1u);
    return report;
  }

  std::size_t Count(std::uint32_t type) const {
    std::size_t n = 0;
    const std::vector<ProductEvent> all = events->Events();
    for (std::size_t i = eventsBefore; i < all.size(); ++i) n += all[i].eventType == type;
    return n;
  }
  // Change events of the last scan for `path` with modification `kind`.
  std::size_t Changes(const std::string& path, std::uint32_t kind) const {
    std::size_t n = 0;
    const std::vector<ProductEvent> all = events->Events();
    for (std::size_t i = eventsBefore; i < all.size(); ++i) {
      bool hasKind = false, hasPath = false;
      for (const pax::EventField& f : all[i].fields) {
        hasKind |= f.fieldId == pax::field::kFileModificationType && f.value.AsU32() == kind;
        hasPath |= f.fieldId == pax::field::kPath && f.value.AsText8() == path;
      }
      n += hasKind && hasPath;
    }
    return n;
  }

  // The settings the storage holds for the next run (read past the faults).
  ODFIMSettings StoredSettings() {
    orn::RefPtr<orn::IStorageNode> node;
    orn::Any any;
    EXPECT_EQ(storage->FindNode("PreviousSettings", node.Ref()), 0);
    if (node) {
      EXPECT_EQ(serializer->Deserialize(any, node.Get(), 0, nullptr), 0);
    }
    return any.Get<ODFIMSettings>() ? *any.Get<ODFIMSettings>() : ODFIMSettings{};
  }

  arvo::test::LoadedModule module{ARVO_MODULE_PATH};
  arvo::test::TempDir dir;
  const std::string db = dir / "fim.db";
  Faults faults;
  arvo::test::FakeHost host;
  orn::RefPtr<arvo::test::RecordingEventPublisher> events =
      orn::MakeSimple<arvo::test::RecordingEventPublisher>();
  orn::RefPtr<orn::IPersistentStorage> storage;
  orn::RefPtr<orn::IStorageSerializer2> serializer;
  ODFIMSettings settings;
  std::size_t eventsBefore = 0;
};

// Each fault is met in the middle of a walk that would fold changes into
// the baseline (automatic update): the area's transaction must roll back,
// so the next run still reports every change made before the failed one.
TEST_F(OnDemandFaultTest, AWalkThatFailsKeepsNothingAndTheNextRunReportsItsChanges) {
  settings.autoUpdateBaseline = true;
  ASSERT_EQ(Scan().reason, u"Task is completed");
  struct Fault {
    std::string name;
    int failOpenAt;
    bool hash;
  };
  std::vector<Fault> cases = {{"hash", 0, true}};
  // Each of the first four opens in turn (every file with content is opened).
  for (int n = 1; n <= 4; ++n) cases.push_back({"open #" + std::to_string(n), n, false});

  int round = 0;
  for (const Fault& fault : cases) {
    SCOPED_TRACE(fault.name);
    const std::string created = dir / ("etc/new" + std::to_string(round));
    arvo::test::WriteFile(dir / "etc/passwd", "root:" + std::to_string(10 + round++) + ":0");
    arvo::test::WriteFile(created, "n");
    const std::string before = arvo::test::DumpDatabase(db);
    const ODFIMSettings stored = StoredSettings();

    faults.hash = fault.hash;
    faults.FailOpenAt(fault.failOpenAt);
    const TaskStopInfo failed = Scan();
    faults.Clear();
    EXPECT_TRUE(ORN_FAILED(failed.result));
    EXPECT_EQ(failed.reason, kFailed);
    EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 0u);
    EXPECT_EQ(arvo::test::DumpDatabase(db), before);
    EXPECT_EQ(arvo::test::IntegrityCheck(db), "ok");
    EXPECT_EQ(StoredSettings(), stored);

    EXPECT_EQ(Scan().reason, u"Task is completed");
    EXPECT_EQ(Changes(dir / "etc/passwd", modification::kObjectContentChanged), 1u);
    EXPECT_EQ(Changes(created, modification::kObjectCreated), 1u);
  }
  EXPECT_EQ(Scan().reason, u"Task is completed");
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 1u);
}

// A fault during a forced rebuild keeps no part of the new baseline: the
// old one was dropped with the area's scope, so the next run builds the
// area anew.
TEST_F(OnDemandFaultTest, ARebuildThatFailsLeavesNoPartialBaseline) {
  ASSERT_EQ(Scan().reason, u"Task is completed");
  settings.globalOption3 = true;  // changing the third option forces a rebuild
  faults.FailOpenAt(2);
  const TaskStopInfo failed = Scan();
  faults.Clear();
  EXPECT_EQ(failed.reason, kFailed);
  EXPECT_EQ(Count(pax::event_type::kBaselineBuilt), 0u);
  EXPECT_EQ(arvo::test::DumpDatabase(db).find(dir.Path()), std::string::npos);
  EXPECT_FALSE(StoredSettings().globalOption3);

  host.tracer->Clear();
  EXPECT_EQ(Scan().reason, u"Task is completed");
  EXPECT_TRUE(host.tracer->Contains("Build new baseline"));
  EXPECT_EQ(Count(pax::event_type::kBaselineBuilt), 1u);
  EXPECT_TRUE(StoredSettings().globalOption3);
  EXPECT_EQ(Scan().reason, u"Task is completed");
  EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 1u);
}

// The areas are done when the settings are saved; a save that fails must
// fail the run and leave the previous settings in the storage, whole.
TEST_F(OnDemandFaultTest, ASaveThatFailsKeepsThePreviousSettingsAndTheNextRunRecovers) {
  for (const bool serializerFails : {true, false}) {
    SCOPED_TRACE(serializerFails ? "serializer fails" : "storage writes fail");
    settings.globalOption3 = !settings.globalOption3;
    ASSERT_EQ(Scan().reason, u"Task is completed");
    const ODFIMSettings previous = StoredSettings();
    ASSERT_EQ(previous, settings);

    settings.globalOption3 = !settings.globalOption3;  // forces a rebuild
    faults.serialize = serializerFails;
    faults.storageWrites = !serializerFails;
    const TaskStopInfo failed = Scan();
    faults.Clear();
    EXPECT_TRUE(ORN_FAILED(failed.result));
    EXPECT_EQ(failed.reason, kFailed);
    EXPECT_TRUE(
        host.tracer->Contains("Cannot save current settings to storage", orn::kTraceLevelError));
    EXPECT_EQ(StoredSettings(), previous);

    // The next run sees the same change of settings the failed one saw.
    host.tracer->Clear();
    EXPECT_EQ(Scan().reason, u"Task is completed");
    EXPECT_TRUE(host.tracer->Contains("Global settings were changed"));
    EXPECT_EQ(StoredSettings(), settings);
    EXPECT_EQ(Scan().reason, u"Task is completed");
    EXPECT_EQ(Count(pax::event_type::kSystemIntegrityOk), 1u);
  }
}

}  // namespace
