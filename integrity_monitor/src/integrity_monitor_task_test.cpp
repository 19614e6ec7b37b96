#include "integrity_monitor_task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "integrity_monitor_publisher_service.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"

namespace pax::fim {
namespace {

using app_core::task_manager::task::ITask;
using arvo::test::FakeHost;
using arvo::test::FakeInotifyProvider;
using arvo::test::FakePathMatcherFactory;
using arvo::test::RecordingEventPublisher;
using arvo::test::RecordingStopSink;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using Kind = FakeInotifyProvider::Call::Kind;

constexpr result_t kUnspecified = static_cast<result_t>(0x8000004B);
constexpr result_t kInvalidState = static_cast<result_t>(0x8000006A);
constexpr char kPrefix[] = "integrity_monitor(OA)\t";
constexpr char kTaskFile[] = "integrity_monitor/src/integrity_monitor_task.cpp:";

settings::OAFIMSettings Areas(std::vector<NativePath> paths, std::u16string rule = u"r1") {
  settings::OAFIMSettings s;
  for (auto& p : paths) s.scanAreas.push_back({u"area", true, p, {}});
  s.excludeMasks = {"*.tmp"};
  s.ruleId = std::move(rule);
  return s;
}

class TaskTest : public ::testing::Test {
 protected:
  TaskTest() {
    host.locator->Provide<IInotifyEventsProvider>(provider.Get());
    host.locator->Provide<IEventPublisher>(events.Get());
    host.locator->Provide<IPathMatcherFactory>(matchers.Get());
    EXPECT_EQ(CreateIntegrityMonitorPublisherService(host.locator.Get(), service.Ref()), 0);
    host.locator->Provide(IIntegrityMonitorPublisher::kIid, service.Get());
  }
  ~TaskTest() override {
    task.Reset();
    host.locator->Clear();
  }

  result_t Create() {
    return orn::CreateLocatorObject<IntegrityMonitorTask>(host.locator.Get(), ITask::kIid,
                                                          task.RefVoid());
  }
  IIntegrityMonitorTaskSettings* Settings() {
    orn::RefPtr<IIntegrityMonitorTaskSettings> s;
    EXPECT_EQ(orn::QueryInterface(task.Get(), s), 0);
    return s.Get();  // the task keeps it alive
  }
  result_t Construct(const settings::OAFIMSettings& s) {
    orn::RefPtr<IIntegrityMonitorTaskConstruct> c;
    EXPECT_EQ(orn::QueryInterface(task.Get(), c), 0);
    return c->Construct(&s);
  }
  void CreateAndConstruct(const settings::OAFIMSettings& s) {
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(Construct(s), 0);
  }
  std::vector<std::string> Errors() const { return host.tracer->Texts(300); }
  std::vector<std::string> Details() const { return host.tracer->Texts(800); }
  static std::string Entry(const char* signature) {
    return std::string(kPrefix) + "virtual result_t pax::fim::IntegrityMonitorTask::" + signature;
  }

  FakeHost host;
  orn::RefPtr<FakeInotifyProvider> provider = orn::MakeSimple<FakeInotifyProvider>();
  orn::RefPtr<RecordingEventPublisher> events = orn::MakeSimple<RecordingEventPublisher>();
  orn::RefPtr<FakePathMatcherFactory> matchers = orn::MakeSimple<FakePathMatcherFactory>();
  orn::RefPtr<RecordingStopSink> sink = orn::MakeSimple<RecordingStopSink>();
  orn::RefPtr<orn::IObject> service;
  orn::RefPtr<ITask> task;
};

TEST_F(TaskTest, ConstructionRequiresAllocatorAndTracer) {
  for (orn::iid_t missing : {orn::IAllocator::kIid, orn::ITracer::kIid}) {
    FakeHost bare;
    bare.locator->Remove(missing);
    EXPECT_EQ(orn::CreateLocatorObject<IntegrityMonitorTask>(bare.locator.Get(), ITask::kIid,
                                                             task.RefVoid()),
              orn::errors::kNoInterface);
    EXPECT_EQ(task.Get(), nullptr);
    EXPECT_EQ(bare.allocator->Live(), 0u);
  }
}

TEST_F(TaskTest, FinalConstructFailsWithTheLookupResultAndItsCheckLine) {
  const struct {
    orn::iid_t iid;
    const char* line;
  } cases[] = {
      {IInotifyEventsProvider::kIid,
       "(orn::GetInterface(sl, m_eventsProvider.Ref())),(ORN_SUCCEEDED(_result)) failed: result "
       "= 0x80000063 (Not ready)Cannot get IInotifyEventsProvider"},
      {IEventPublisher::kIid,
       "(GetInterface(sl, eventPublisher.Ref())),(ORN_SUCCEEDED(_result)) failed: result = "
       "0x80000063 (Not ready)Cannot get IEventPublisher"},
      {IIntegrityMonitorPublisher::kIid,
       "(GetInterface(sl, integrityMonitorPublisher.Ref())),(ORN_SUCCEEDED(_result)) failed: "
       "result = 0x80000063 (Not ready)Cannot get IIntegrityMonitorPublisher"},
  };
  for (const auto& c : cases) {
    FakeHost fresh;
    fresh.locator->Provide<IInotifyEventsProvider>(provider.Get());
    fresh.locator->Provide<IEventPublisher>(events.Get());
    fresh.locator->Provide(IIntegrityMonitorPublisher::kIid, service.Get());
    fresh.locator->Fail(c.iid, static_cast<result_t>(0x80000063));
    EXPECT_EQ(orn::CreateLocatorObject<IntegrityMonitorTask>(fresh.locator.Get(), ITask::kIid,
                                                             task.RefVoid()),
              static_cast<result_t>(0x80000063));
    const auto errors = fresh.tracer->Texts(300);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors[0], StartsWith(kTaskFile));
    EXPECT_THAT(errors[0], EndsWith(c.line));
    EXPECT_EQ(fresh.allocator->Live(), 0u);
  }
}

TEST_F(TaskTest, CreationLooksUpServicesAndConstructBuildsTheMatcherWithoutSubscribing) {
  const auto s = Areas({"/a", "/b"});
  const std::size_t before = host.locator->Lookups().size();
  ASSERT_EQ(Create(), 0);
  const auto lookups = host.locator->Lookups();
  EXPECT_THAT(std::vector<orn::iid_t>(lookups.begin() + before, lookups.end()),
              ElementsAre(orn::IAllocator::kIid,  // the factory's own lookup
                          orn::IAllocator::kIid, orn::ITracer::kIid, IInotifyEventsProvider::kIid,
                          IEventPublisher::kIid, IIntegrityMonitorPublisher::kIid));
  EXPECT_THAT(Details(), ElementsAre(std::string(kPrefix) +
                                     "result_t pax::fim::IntegrityMonitorTask::FinalConstruct()"));
  host.tracer->Clear();
  ASSERT_EQ(Construct(s), 0);
  EXPECT_EQ(matchers->Created(), 1u);
  EXPECT_EQ(matchers->LastScope()->scanAreas, s.scanAreas);
  EXPECT_EQ(matchers->LastExclusions()->excludeMasks, s.excludeMasks);
  settings::OAFIMSettings out;
  EXPECT_EQ(Settings()->GetSettings(&out), 0);
  EXPECT_EQ(out, s);
  EXPECT_THAT(provider->Calls(), IsEmpty());
  EXPECT_THAT(Details(), ElementsAre(Entry("Construct(const pax::settings::OAFIMSettings*)"),
                                     Entry("SetSettings(const pax::settings::OAFIMSettings*)"),
                                     Entry("GetSettings(pax::settings::OAFIMSettings*)")));
}

TEST_F(TaskTest, FailedMatcherKeepsTheNewSettingsWithTheOldMatcher) {
  CreateAndConstruct(Areas({"/a"}));
  const auto oldMatcher = matchers->LastMatcher();
  matchers->FailWith(static_cast<result_t>(0x8000004A));
  EXPECT_EQ(Settings()->SetSettings(&static_cast<const settings::OAFIMSettings&>(Areas({"/b"}))),
            static_cast<result_t>(0x8000004A));
  const auto errors = Errors();
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_THAT(errors[0], EndsWith("(matcherFactory->CreateFntreeMatcher( m_settings, m_settings, "
                                  "matcher.Ref())),(ORN_SUCCEEDED(_result)) failed: result = "
                                  "0x8000004a (Not matched)Cannot create path matcher"));
  EXPECT_THAT(errors[1], EndsWith("(CreateMatcher()),(ORN_SUCCEEDED(_result)) failed: result = "
                                  "0x8000004a (Not matched)"));
  settings::OAFIMSettings out;
  EXPECT_EQ(Settings()->GetSettings(&out), 0);
  EXPECT_EQ(out.scanAreas.at(0).path, "/b");

  // Start watches the new areas; the callbacks still judge with the old
  // settings and matcher.
  ASSERT_EQ(task->Start(1, sink.Get()), 0);
  EXPECT_THAT(provider->SubscribedDirectories(), ElementsAre("/b"));
  EXPECT_EQ(provider->Inject({"/b/x", "", "", IN_CREATE, false}), 0);
  EXPECT_EQ(oldMatcher->Questions().size(), 1u);
  EXPECT_EQ(events->Events().at(0).fields.at(2), (EventField{69, FieldValue::Text16(u"r1")}));
}

TEST_F(TaskTest, MissingMatcherFactoryIsReportedByItsLookup) {
  ASSERT_EQ(Create(), 0);
  host.locator->Remove(IPathMatcherFactory::kIid);
  EXPECT_EQ(Construct(Areas({"/a"})), orn::errors::kNoInterface);
  EXPECT_THAT(Errors().at(0),
              EndsWith("(orn::GetInterface(GetServiceLocator(), matcherFactory.Ref())),(ORN_"
                       "SUCCEEDED(_result)) failed: result = 0x80000001 (Interface not "
                       "supported)Cannot get pax::IPathMatcherFactory interface"));
}

TEST_F(TaskTest, StartSubscribesEachAreaOnceAndStopReportsToTheSink) {
  CreateAndConstruct(Areas({"/a", "/b", "/c"}));
  host.tracer->Clear();
  ASSERT_EQ(task->Start(7, sink.Get()), 0);
  const auto calls = provider->Calls();
  ASSERT_EQ(calls.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(calls[i].kind, Kind::kSubscribe);
    EXPECT_EQ(calls[i].directory, std::string(1, '/') + char('a' + i));
    EXPECT_EQ(calls[i].mask, 0x3C6u);
    EXPECT_EQ(calls[i].receiver, calls[0].receiver);
  }
  EXPECT_THAT(Details(), ElementsAre(Entry("Start(app_core::task_manager::task::TaskSessionId, "
                                           "app_core::task_manager::task::ITaskStopEvents*)"),
                                     std::string(kPrefix) + "Processing scan area: /a",
                                     std::string(kPrefix) + "Processing scan area: /b",
                                     std::string(kPrefix) + "Processing scan area: /c",
                                     std::string(kPrefix) + "Integrity monitor started"));

  EXPECT_EQ(task->Start(7, sink.Get()), kInvalidState);
  EXPECT_TRUE(
      host.tracer->Contains("Integrity monitor is not stopped and thus cannot be started", 800));
  EXPECT_EQ(provider->Calls().size(), 3u);

  host.tracer->Clear();
  ASSERT_EQ(task->Stop(), 0);
  EXPECT_EQ(provider->Calls().back().kind, Kind::kUnsubscribe);
  EXPECT_EQ(provider->Calls().back().receiver, calls[0].receiver);
  ASSERT_EQ(sink->Reports().size(), 1u);
  EXPECT_EQ(sink->Reports()[0].result, 0);
  EXPECT_EQ(sink->Reports()[0].reason, u"Task successfully stopped");
  EXPECT_THAT(Details(),
              ElementsAre(Entry("Stop()"),
                          std::string(kPrefix) +
                              "void pax::fim::IntegrityMonitorTask::NotifyTaskStop(result_t, "
                              "const std::string&) code: 0, reason: Task successfully stopped"));

  EXPECT_EQ(task->Stop(), kInvalidState);
  EXPECT_TRUE(
      host.tracer->Contains("Integrity monitor is not started and thus cannot be stopped", 800));
  EXPECT_EQ(sink->Reports().size(), 1u);
  EXPECT_EQ(task->Start(8, sink.Get()), 0);  // a stopped task starts again
}

TEST_F(TaskTest, StartWithoutAreasSucceedsWithoutWatches) {
  CreateAndConstruct(Areas({}));
  EXPECT_EQ(task->Start(1, sink.Get()), 0);
  EXPECT_THAT(provider->Calls(), IsEmpty());
  EXPECT_EQ(task->Start(1, sink.Get()), kInvalidState);
}

TEST_F(TaskTest, FailedSubscriptionDropsTheOthersAndLeavesTheTaskStopped) {
  CreateAndConstruct(Areas({"/a", "/b", "/c"}));
  provider->FailSubscribeCall(2);
  EXPECT_EQ(task->Start(1, sink.Get()), kUnspecified);
  const auto calls = provider->Calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[1].directory, "/b");
  EXPECT_EQ(calls[2].kind, Kind::kUnsubscribe);
  EXPECT_THAT(provider->SubscribedDirectories(), IsEmpty());
  EXPECT_THAT(Errors(),
              ElementsAre(std::string(kPrefix) + "Cannot add subscription for directory: /b",
                          std::string(kPrefix) + "Cannot subscribe to inotify events"));
  EXPECT_EQ(task->Stop(), kInvalidState);
  EXPECT_THAT(sink->Reports(), IsEmpty());
}

TEST_F(TaskTest, FailedSubscriptionWhoseCleanupFailsTooIsStillUnspecified) {
  CreateAndConstruct(Areas({"/a", "/b"}));
  provider->FailSubscribeCall(2);
  provider->FailUnsubscribe(static_cast<result_t>(0x80000045));
  EXPECT_EQ(task->Start(1, sink.Get()), kUnspecified);
  const auto errors = Errors();
  ASSERT_EQ(errors.size(), 4u);
  EXPECT_EQ(errors[0], std::string(kPrefix) + "Cannot add subscription for directory: /b");
  EXPECT_THAT(errors[1], EndsWith("(m_eventsProvider->Unsubscribe(m_callbacks)),(ORN_SUCCEEDED(_"
                                  "result)) failed: result = 0x80000045 (Access denied)Cannot "
                                  "unsubscribe from inotify events!"));
  EXPECT_EQ(errors[2], std::string(kPrefix) + "Cannot unsubscribe from file integrity events!");
  EXPECT_EQ(errors[3], std::string(kPrefix) + "Cannot subscribe to inotify events");
}

TEST_F(TaskTest, FailedUnsubscribeKeepsTheTaskStarted) {
  CreateAndConstruct(Areas({"/a"}));
  ASSERT_EQ(task->Start(1, sink.Get()), 0);
  provider->FailUnsubscribe(static_cast<result_t>(0x80000045));
  EXPECT_EQ(task->Stop(), static_cast<result_t>(0x80000045));
  const auto errors = Errors();
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_THAT(errors[0], HasSubstr("Cannot unsubscribe from inotify events!"));
  EXPECT_THAT(errors[1], EndsWith("(Unsubscribe()),(ORN_SUCCEEDED(_result)) failed: result = "
                                  "0x80000045 (Access denied)Cannot unsubscribe from inotify "
                                  "events"));
  EXPECT_THAT(sink->Reports(), IsEmpty());
  EXPECT_EQ(task->Start(1, sink.Get()), kInvalidState);
  provider->FailUnsubscribe(0);
  EXPECT_EQ(task->Stop(), 0);
  EXPECT_EQ(sink->Reports().size(), 1u);
}

TEST_F(TaskTest, NewSettingsWhileStartedResubscribe) {
  CreateAndConstruct(Areas({"/a"}));
  ASSERT_EQ(task->Start(1, sink.Get()), 0);
  host.tracer->Clear();
  const auto s = Areas({"/x", "/y"});
  EXPECT_EQ(Settings()->SetSettings(&s), 0);
  EXPECT_TRUE(host.tracer->Contains(std::string(kPrefix) + "Resubscribing...", 800));
  EXPECT_THAT(provider->SubscribedDirectories(), ElementsAre("/x", "/y"));

  provider->FailSubscribeCall(1);
  EXPECT_EQ(Settings()->SetSettings(&s), kUnspecified);
  EXPECT_THAT(Errors().back(), EndsWith("(Subscribe()),(ORN_SUCCEEDED(_result)) failed: result = "
                                        "0x8000004b (Unspecified error)Cannot subscribe to file "
                                        "integrity events"));
  // Started without watches: Stop still applies.
  EXPECT_THAT(provider->SubscribedDirectories(), IsEmpty());
  EXPECT_EQ(task->Stop(), 0);
}

TEST_F(TaskTest, PauseAndResumeAreNotImplementedInAnyState) {
  CreateAndConstruct(Areas({"/a"}));
  for (int started = 0; started < 2; ++started) {
    EXPECT_EQ(task->Pause(), orn::errors::kNotImplemented);
    EXPECT_EQ(task->Resume(), orn::errors::kNotImplemented);
    if (!started) {
      ASSERT_EQ(task->Start(1, sink.Get()), 0);
    }
  }
  EXPECT_TRUE(host.tracer->Contains(Entry("Pause()"), 800));
  EXPECT_TRUE(host.tracer->Contains(Entry("Resume()"), 800));
  EXPECT_EQ(task->Stop(), 0);  // Pause did not change the state
}

TEST_F(TaskTest, EventsOnTheProviderThreadRaceHostCallsSafely) {
  // Every event ends in the scope check, under the callbacks' lock: the rule
  // id read while reporting is deliberately unsynchronised with SetSettings.
  matchers->DefaultAnswer(1);
  CreateAndConstruct(Areas({"/a"}));
  std::atomic<bool> done{false};
  std::thread providerThread([&] {
    while (!done.load()) (void)provider->Inject({"/a/f", "", "", IN_MODIFY, false});
  });
  const auto s = Areas({"/a"});
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(task->Start(1, sink.Get()), 0);
    ASSERT_EQ(Settings()->SetSettings(&s), 0);
    ASSERT_EQ(task->Stop(), 0);
  }
  done = true;
  providerThread.join();
  EXPECT_EQ(sink->Reports().size(), 200u);
}

}  // namespace
}  // namespace pax::fim
