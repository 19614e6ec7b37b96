#include "integrity_monitor_callbacks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "integrity_monitor_publisher_service.h"
#include "pax/enumerations.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"

namespace pax::fim {
namespace {

using arvo::test::FakeHost;
using arvo::test::Narrow;
using arvo::test::RecordingDetectReceiver;
using arvo::test::RecordingEventPublisher;
using arvo::test::ScriptedPathMatcher;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kEntry[] =
    "integrity_monitor(OA)\tvirtual result_t "
    "pax::fim::IntegrityMonitorCallbacks::OnEvent(const pax::InotifyEvent&)";

class ThrowingPublisher final : public orn::SimpleObject<IEventPublisher> {
 public:
  orn::result_t Publish(const ProductEvent&) override { throw std::runtime_error("boom"); }
};

class CallbacksTest : public ::testing::Test {
 protected:
  CallbacksTest() {
    orn::RefPtr<orn::IObject> object;
    EXPECT_EQ(CreateIntegrityMonitorPublisherService(nullptr, object.Ref()), 0);
    EXPECT_EQ(orn::QueryInterface(object.Get(), detectPublisher), 0);
    orn::RefPtr<mdr::agent::IFileIntegrityMonitorDetectEventSubscription> subscription;
    EXPECT_EQ(orn::QueryInterface(object.Get(), subscription), 0);
    EXPECT_EQ(subscription->Subscribe(detections.Get()), 0);
    callbacks = MakeCallbacks(publisher.Get());
  }

  orn::RefPtr<IntegrityMonitorCallbacks> MakeCallbacks(IEventPublisher* events) {
    orn::RefPtr<IntegrityMonitorCallbacks> made;
    EXPECT_EQ(orn::CreateObject<IntegrityMonitorCallbacks>(
                  nullptr, nullptr, made, host.tracer.Get(), events, detectPublisher.Get()),
              0);
    return made;
  }

  // Settings with one area, /data, and a fresh matcher answering `answer`.
  void Configure(orn::result_t answer = 0) {
    settings::OAFIMSettings s;
    s.scanAreas.push_back({u"data", true, "/data", {}});
    s.ruleId = u"rule-7";
    matcher = orn::MakeSimple<ScriptedPathMatcher>();
    matcher->AnswerByDefault(answer);
    callbacks->UpdateSettings(&s, matcher.Get());
  }

  static InotifyEvent Event(std::string path, std::uint32_t mask = IN_MODIFY) {
    InotifyEvent e;
    e.path = std::move(path);
    e.mask = mask;
    return e;
  }

  FakeHost host;
  orn::RefPtr<RecordingEventPublisher> publisher = orn::MakeSimple<RecordingEventPublisher>();
  orn::RefPtr<RecordingDetectReceiver> detections = orn::MakeSimple<RecordingDetectReceiver>();
  orn::RefPtr<IIntegrityMonitorPublisher> detectPublisher;
  orn::RefPtr<ScriptedPathMatcher> matcher;
  orn::RefPtr<IntegrityMonitorCallbacks> callbacks;
};

TEST_F(CallbacksTest, ChangeInScopeBecomesADetectionAndAnIssueEventWithSixFields) {
  Configure();
  EXPECT_EQ(callbacks->OnEvent(Event("/data/f", 0x2)), 0);

  ASSERT_EQ(detections->Count(), 1u);
  const auto d = detections->Detections()[0];
  EXPECT_EQ(d.detectType, 0u);
  EXPECT_EQ(d.path, "/data/f");
  EXPECT_FALSE(d.digest.has_value());
  EXPECT_FALSE(d.hasExtra);

  ASSERT_EQ(publisher->Events().size(), 1u);
  const ProductEvent e = publisher->Events()[0];
  EXPECT_EQ(e.id, 0u);
  EXPECT_EQ(e.eventType, 67u);
  EXPECT_EQ(e.severity, 0u);
  EXPECT_EQ(e.headerWord, 2u);
  EXPECT_FALSE(e.headerText.has_value());
  EXPECT_GT(e.time, 0);
  EXPECT_THAT(
      e.fields,
      ElementsAre(EventField{66, FieldValue::Text8("/data/f")},
                  EventField{54, FieldValue::U32(0x2)},
                  EventField{69, FieldValue::Text16(u"rule-7")}, EventField{8, FieldValue::U64(11)},
                  EventField{12, FieldValue::Text16(u"OAFIM")},
                  EventField{5, FieldValue::Text16(u"System_Integrity_Monitoring")}));
  EXPECT_EQ(host.tracer->Texts(800), std::vector<std::string>{kEntry});
}

TEST_F(CallbacksTest, MovedObjectCarriesItsFormerPathFirstAndTheMaskUnchanged) {
  Configure();
  InotifyEvent moved = Event("/data/new", 9);
  moved.formerPath = "/data/old";
  EXPECT_EQ(callbacks->OnEvent(moved), 0);
  const auto fields = publisher->Events().at(0).fields;
  ASSERT_EQ(fields.size(), 7u);
  EXPECT_EQ(fields[0], (EventField{63, FieldValue::Text8("/data/old")}));
  EXPECT_EQ(fields[1], (EventField{66, FieldValue::Text8("/data/new")}));
  EXPECT_EQ(fields[2], (EventField{54, FieldValue::U32(9)}));
}

TEST_F(CallbacksTest, ReportedErrorWinsOverTheChangeAndPublishesNothing) {
  Configure();
  InotifyEvent e = Event("/data/f");
  e.error = "queue overflow";
  EXPECT_EQ(callbacks->OnEvent(e), static_cast<result_t>(0x8000004B));
  EXPECT_THAT(host.tracer->Texts(300),
              ElementsAre("integrity_monitor(OA)\tInotify service reported an error: "
                          "queue overflow"));
  EXPECT_THAT(publisher->Events(), IsEmpty());
  EXPECT_EQ(detections->Count(), 0u);
}

TEST_F(CallbacksTest, ZeroMaskIsSkippedWithoutAskingTheMatcher) {
  Configure();
  EXPECT_EQ(callbacks->OnEvent(Event("/data/f", 0)), 1);
  EXPECT_THAT(matcher->Questions(), IsEmpty());
  EXPECT_THAT(host.tracer->Texts(800),
              ElementsAre(kEntry, "integrity_monitor(OA)\tSkipping event for object: /data/f"));
  EXPECT_THAT(publisher->Events(), IsEmpty());
}

TEST_F(CallbacksTest, MatcherAnswerOneSkipsTheEvent) {
  Configure(1);
  InotifyEvent e = Event("/data/x");
  e.isDirectory = true;
  EXPECT_EQ(callbacks->OnEvent(e), 1);
  EXPECT_THAT(matcher->Questions(), ElementsAre(std::pair<NativePath, bool>("/data/x", true)));
  EXPECT_THAT(host.tracer->Texts(800),
              ElementsAre(kEntry, "integrity_monitor(OA)\tObject '/data/x' is not in scan scope",
                          "integrity_monitor(OA)\tSkipping event for object: /data/x"));
  EXPECT_EQ(detections->Count(), 0u);

  // Only an answer of 1 is out of scope; failures and other answers are in.
  matcher->Answer("/data/failing", static_cast<result_t>(0x80000046));
  matcher->Answer("/data/other", 2);
  EXPECT_EQ(callbacks->IsInScope("/data/failing", false), 0);
  EXPECT_EQ(callbacks->IsInScope("/data/other", false), 0);
}

TEST_F(CallbacksTest, AncestorsOfAScanAreaAreInScopeWhateverTheMatcherSays) {
  Configure(1);
  EXPECT_EQ(callbacks->IsInScope("/", true), 0);
  EXPECT_THAT(matcher->Questions(), IsEmpty());
  EXPECT_TRUE(host.tracer->Contains("integrity_monitor(OA)\tObject / is a scan area parent", 800));

  // The area itself, with or without its trailing "/", and a sibling sharing
  // its prefix are judged by the matcher.
  EXPECT_EQ(callbacks->IsInScope("/data/", true), static_cast<result_t>(0x8000004C));
  EXPECT_EQ(callbacks->IsInScope("/data", true), static_cast<result_t>(0x8000004C));
  EXPECT_EQ(callbacks->IsInScope("/dat", true), static_cast<result_t>(0x8000004C));
  EXPECT_EQ(matcher->Questions().size(), 3u);
}

TEST_F(CallbacksTest, WithoutMatcherEverythingIsInScope) {
  EXPECT_EQ(callbacks->OnEvent(Event("/anything")), 0);  // before any settings
  EXPECT_EQ(publisher->Events().at(0).fields.at(2), (EventField{69, FieldValue::Text16(u"")}));

  Configure(1);
  settings::OAFIMSettings empty;
  callbacks->UpdateSettings(&empty, nullptr);
  EXPECT_EQ(callbacks->IsInScope("/data/f", false), 0);
  EXPECT_THAT(matcher->Questions(), IsEmpty());
}

TEST_F(CallbacksTest, PublisherResultIsReturned) {
  Configure();
  publisher->FailWith(static_cast<result_t>(0x80000063));
  EXPECT_EQ(callbacks->OnEvent(Event("/data/f")), static_cast<result_t>(0x80000063));
  EXPECT_EQ(detections->Count(), 1u);
}

TEST_F(CallbacksTest, ExceptionIsTracedAndAnsweredWithUnspecifiedError) {
  auto throwing = orn::MakeSimple<ThrowingPublisher>();
  callbacks = MakeCallbacks(throwing.Get());
  EXPECT_EQ(callbacks->OnEvent(Event("/data/f")), static_cast<result_t>(0x8000004B));
  EXPECT_THAT(host.tracer->Texts(300),
              ElementsAre("integrity_monitor(OA)\tUnexpected exception in OnEvent"));
}

TEST_F(CallbacksTest, GetNameIsTheTaskName) {
  orn::types::string8_t name;
  EXPECT_EQ(callbacks->GetName(name), 0);
  EXPECT_EQ(name, "IntegrityMonitorTask");
  EXPECT_THAT(host.tracer->Texts(800),
              ElementsAre("integrity_monitor(OA)\tvirtual result_t "
                          "pax::fim::IntegrityMonitorCallbacks::GetName(orn::types::string8_t&) "
                          "const"));
}

}  // namespace
}  // namespace pax::fim
