// The on-access task as a host drives it: factory from the loaded module,
// the publisher service made by the module and offered back through the
// locator, notifications injected through the fake inotify provider.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include "app_core/task_manager/task/task.h"
#include "orn/ref_ptr.h"
#include "pax/fim_tasks.h"
#include "pax/integrity_monitor_publisher.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"

namespace {

using app_core::task_manager::task::ITask;
using arvo::test::FakeHost;
using arvo::test::FakeInotifyProvider;
using arvo::test::FakePathMatcherFactory;
using arvo::test::LoadedModule;
using arvo::test::RecordingDetectReceiver;
using arvo::test::RecordingEventPublisher;
using arvo::test::RecordingStopSink;
using ::testing::Contains;
using ::testing::ElementsAre;

class OnAccessModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(module.Ok()) << module.Error();
    host.locator->Provide<pax::IInotifyEventsProvider>(provider.Get());
    host.locator->Provide<pax::IEventPublisher>(events.Get());
    host.locator->Provide<pax::IPathMatcherFactory>(matchers.Get());
    ASSERT_EQ(module.CreateObject(pax::fim::kIntegrityMonitorPublisherServiceClsid,
                                  host.locator.Get(), service.Ref()),
              0);
    host.locator->Provide(pax::IIntegrityMonitorPublisher::kIid, service.Get());
    ASSERT_EQ(module.GetObjectFactory(host.locator.Get(), pax::fim::kIntegrityMonitorTaskClsid,
                                      factory.Ref()),
              0);
  }
  void TearDown() override {
    task.Reset();
    factory.Reset();
    service.Reset();
    host.locator->Clear();
    EXPECT_EQ(module.CanUnload(), 0);
    EXPECT_EQ(host.allocator->Live(), 0u);
  }
  orn::result_t CreateTask() {
    return factory->CreateInstance(host.locator.Get(), ITask::kIid, task.RefVoid());
  }

  LoadedModule module{ARVO_MODULE_PATH};
  FakeHost host;
  orn::RefPtr<FakeInotifyProvider> provider = orn::MakeSimple<FakeInotifyProvider>();
  orn::RefPtr<RecordingEventPublisher> events = orn::MakeSimple<RecordingEventPublisher>();
  orn::RefPtr<FakePathMatcherFactory> matchers = orn::MakeSimple<FakePathMatcherFactory>();
  orn::RefPtr<orn::IObject> service;
  orn::RefPtr<orn::IObjectFactory> factory;
  orn::RefPtr<ITask> task;
};

TEST_F(OnAccessModuleTest, WatchedChangeBecomesADetectionAndAnIssueEvent) {
  auto detections = orn::MakeSimple<RecordingDetectReceiver>();
  orn::RefPtr<mdr::agent::IFileIntegrityMonitorDetectEventSubscription> subscription;
  ASSERT_EQ(orn::QueryInterface(service.Get(), subscription), 0);
  ASSERT_EQ(subscription->Subscribe(detections.Get()), 0);

  ASSERT_EQ(CreateTask(), 0);
  orn::RefPtr<pax::fim::IIntegrityMonitorTaskConstruct> construct;
  ASSERT_EQ(orn::QueryInterface(task.Get(), construct), 0);
  pax::settings::OAFIMSettings settings;
  settings.scanAreas.push_back({u"etc", true, "/etc", {}});
  settings.ruleId = u"R-1";
  ASSERT_EQ(construct->Construct(&settings), 0);

  pax::InotifyEvent moved{"/etc/hosts", "/etc/hosts~", "", IN_MOVED_TO, false};
  EXPECT_EQ(provider->Inject(moved), std::nullopt);  // nothing watched before Start
  auto sink = orn::MakeSimple<RecordingStopSink>();
  ASSERT_EQ(task->Start(42, sink.Get()), 0);
  EXPECT_THAT(provider->SubscribedDirectories(), ElementsAre("/etc"));
  EXPECT_EQ(provider->Inject(moved), 0);

  ASSERT_EQ(detections->Count(), 1u);
  EXPECT_EQ(detections->Detections()[0].detectType, 0u);
  EXPECT_EQ(detections->Detections()[0].path, "/etc/hosts");
  const auto published = events->Events();
  ASSERT_EQ(published.size(), 1u);
  using pax::EventField;
  using pax::FieldValue;
  EXPECT_EQ(published[0].eventType, 67u);
  EXPECT_EQ(published[0].headerWord, 2u);
  EXPECT_THAT(
      published[0].fields,
      ElementsAre(EventField{63, FieldValue::Text8("/etc/hosts~")},
                  EventField{66, FieldValue::Text8("/etc/hosts")},
                  EventField{54, FieldValue::U32(IN_MOVED_TO)},
                  EventField{69, FieldValue::Text16(u"R-1")}, EventField{8, FieldValue::U64(11)},
                  EventField{12, FieldValue::Text16(u"OAFIM")},
                  EventField{5, FieldValue::Text16(u"System_Integrity_Monitoring")}));

  ASSERT_EQ(task->Stop(), 0);
  EXPECT_FALSE(provider->HasReceiver());
  ASSERT_EQ(sink->Reports().size(), 1u);
  EXPECT_EQ(sink->Reports()[0].reason, u"Task successfully stopped");
  EXPECT_THAT(host.tracer->Texts(800), Contains("integrity_monitor(OA)\tvirtual result_t "
                                                "pax::fim::IntegrityMonitorTask::Stop()"));
  EXPECT_EQ(subscription->Unsubscribe(detections.Get()), 0);
}

TEST_F(OnAccessModuleTest, TaskAnswersItsInterfacesAndHoldsTheModule) {
  ASSERT_EQ(CreateTask(), 0);
  orn::RefPtr<orn::IObject> root;
  ASSERT_EQ(task->QueryInterface(0, root.RefVoid()), 0);
  EXPECT_EQ(static_cast<void*>(root.Get()), static_cast<void*>(task.Get()));
  for (orn::iid_t iid : {0xFF825D6Du, 0x98F74BE2u}) {
    orn::RefPtr<orn::IObject> iface;
    EXPECT_EQ(task->QueryInterface(iid, iface.RefVoid()), 0) << std::hex << iid;
  }
  orn::RefPtr<orn::IObject> none;
  EXPECT_EQ(task->QueryInterface(0x5D7D8CC8, none.RefVoid()), orn::errors::kNoInterface);
  EXPECT_EQ(none.Get(), nullptr);

  root.Reset();
  factory.Reset();
  service.Reset();
  host.locator->Remove(pax::IIntegrityMonitorPublisher::kIid);
  EXPECT_EQ(module.CanUnload(), 1);  // the task and its callbacks object
}

}  // namespace
