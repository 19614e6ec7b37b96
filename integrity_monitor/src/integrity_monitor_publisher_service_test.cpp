#include "integrity_monitor_publisher_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "named_value_records.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"

namespace pax {
namespace {

using arvo::test::FakeHost;
using arvo::test::RecordingDetectReceiver;
using arvo::test::RecordingSerializer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Receiver = RecordingDetectReceiver;
using Subscription = mdr::agent::IFileIntegrityMonitorDetectEventSubscription;

// References held on `object` by others than the caller's one.
std::uint32_t OtherRefs(orn::IObject* object) {
  const std::uint32_t count = object->AddRef();
  object->Release();
  return count - 2;
}

class PublisherServiceTest : public ::testing::Test {
 protected:
  PublisherServiceTest() {
    orn::RefPtr<orn::IObject> object;
    EXPECT_EQ(CreateIntegrityMonitorPublisherService(host.locator.Get(), object.Ref()), 0);
    EXPECT_EQ(orn::QueryInterface(object.Get(), publisher), 0);
    EXPECT_EQ(orn::QueryInterface(object.Get(), subscription), 0);
  }

  orn::RefPtr<Receiver> Subscribed(std::vector<std::string>* order = nullptr,
                                   std::string name = {}) {
    auto r = orn::MakeSimple<Receiver>();
    if (order) r->SetHook([order, name](const DetectEvent&) { order->push_back(name); });
    EXPECT_EQ(subscription->Subscribe(r.Get()), 0);
    return r;
  }
  void Publish(const std::string& path = "/p") {
    EXPECT_EQ(publisher->PublishDetectEvent(0, path, nullptr, nullptr), 0);
  }

  FakeHost host;
  orn::RefPtr<IIntegrityMonitorPublisher> publisher;
  orn::RefPtr<Subscription> subscription;
};

TEST_F(PublisherServiceTest, DeliversTheDetectEventToEverySubscriber) {
  auto a = Subscribed();
  auto b = Subscribed();
  const Sha256Digest digest{1, 2, 3};
  EXPECT_EQ(publisher->PublishDetectEvent(1, "/etc/old", &digest, nullptr), 0);
  for (auto* r : {a.Get(), b.Get()}) {
    ASSERT_EQ(r->Count(), 1u);
    const auto d = r->Detections()[0];
    EXPECT_EQ(d.detectType, 1u);
    EXPECT_EQ(d.path, "/etc/old");
    EXPECT_EQ(d.digest, digest);
    EXPECT_FALSE(d.hasExtra);
  }
}

TEST_F(PublisherServiceTest, UnsubscribeReleasesTheReceiverAndStopsDelivery) {
  auto a = Subscribed();
  EXPECT_EQ(OtherRefs(a.Get()), 1u);
  EXPECT_EQ(subscription->Unsubscribe(a.Get()), 0);
  EXPECT_EQ(OtherRefs(a.Get()), 0u);
  Publish();
  EXPECT_EQ(a->Count(), 0u);
  EXPECT_EQ(subscription->Unsubscribe(a.Get()), orn::errors::kNotFound);
  EXPECT_EQ(subscription->UnsubscribeAndWait(a.Get()), orn::errors::kNotFound);
}

TEST_F(PublisherServiceTest, FreedSlotIsReusedSoALaterSubscriberMayComeFirst) {
  std::vector<std::string> order;
  auto a = Subscribed(&order, "a");
  auto b = Subscribed(&order, "b");
  EXPECT_EQ(subscription->Unsubscribe(a.Get()), 0);
  auto c = Subscribed(&order, "c");
  Publish();
  EXPECT_THAT(order, ElementsAre("c", "b"));
}

TEST_F(PublisherServiceTest, TableGrowsFromFourByDoublingThroughTheHostAllocator) {
  const std::size_t serviceBlocks = host.allocator->Live();
  std::vector<std::string> order;
  std::vector<orn::RefPtr<Receiver>> receivers;
  for (int i = 0; i < 4; ++i) receivers.push_back(Subscribed(&order, std::to_string(i)));
  EXPECT_EQ(host.allocator->Live(), serviceBlocks + 1);

  // Full at 4: a failed growth leaves the table as it was.
  host.allocator->FailAllocations(true);
  auto rejected = orn::MakeSimple<Receiver>();
  EXPECT_EQ(subscription->Subscribe(rejected.Get()), orn::errors::kOutOfMemory);
  EXPECT_EQ(OtherRefs(rejected.Get()), 0u);
  host.allocator->FailAllocations(false);

  for (int i = 4; i < 9; ++i) receivers.push_back(Subscribed(&order, std::to_string(i)));
  EXPECT_EQ(host.allocator->Live(), serviceBlocks + 1);  // old storage freed
  Publish();
  EXPECT_THAT(order, ElementsAre("0", "1", "2", "3", "4", "5", "6", "7", "8"));
  for (auto& r : receivers) EXPECT_EQ(OtherRefs(r.Get()), 1u);  // moved, not re-counted
}

TEST_F(PublisherServiceTest, UnsubscribeInsideTheCallbackReleasesRightAfterIt) {
  auto a = orn::MakeSimple<Receiver>();
  std::vector<std::uint32_t> refsInside;
  Receiver* raw = a.Get();
  a->SetHook([&](const DetectEvent&) {
    EXPECT_EQ(subscription->Unsubscribe(raw), orn::errors::kFalse);
    EXPECT_EQ(subscription->Unsubscribe(raw), orn::errors::kFalse);  // still pending
    refsInside.push_back(OtherRefs(raw));
  });
  ASSERT_EQ(subscription->Subscribe(a.Get()), 0);
  Publish();
  EXPECT_THAT(refsInside, ElementsAre(1u));  // the pending release
  EXPECT_EQ(OtherRefs(a.Get()), 0u);
  EXPECT_EQ(subscription->Unsubscribe(a.Get()), orn::errors::kNotFound);
  Publish();
  EXPECT_EQ(a->Count(), 1u);
}

TEST_F(PublisherServiceTest, SubscriberAddedDuringDeliveryGetsTheEventOnlyIfAfterTheCursor) {
  std::vector<std::string> order;
  auto first = Subscribed(&order, "first");
  auto gap = Subscribed(&order, "gap");
  ASSERT_EQ(subscription->Unsubscribe(gap.Get()), 0);  // frees slot 1
  auto late = orn::MakeSimple<Receiver>();
  late->SetHook([&](const DetectEvent&) { order.push_back("late"); });
  auto early = orn::MakeSimple<Receiver>();
  early->SetHook([&](const DetectEvent&) { order.push_back("early"); });
  auto third = orn::MakeSimple<Receiver>();
  third->SetHook([&](const DetectEvent&) {
    order.push_back("third");
    // Appended at slot 2 while the cursor is at slot 1: reached in this pass.
    EXPECT_EQ(subscription->Subscribe(late.Get()), 0);
  });
  first->SetHook([&](const DetectEvent&) {
    order.push_back("first");
    EXPECT_EQ(subscription->Subscribe(third.Get()), 0);  // reuses slot 1
  });
  Publish();
  EXPECT_THAT(order, ElementsAre("first", "third", "late"));

  // A slot before the cursor is not visited again in the same pass.
  order.clear();
  first->SetHook([&](const DetectEvent&) { order.push_back("first"); });
  third->SetHook([&](const DetectEvent&) {
    order.push_back("third");
    EXPECT_EQ(subscription->Unsubscribe(first.Get()), 0);
    EXPECT_EQ(subscription->Subscribe(early.Get()), 0);  // reuses slot 0
  });
  late->SetHook([&](const DetectEvent&) { order.push_back("late"); });
  Publish();
  EXPECT_THAT(order, ElementsAre("first", "third", "late"));
}

TEST_F(PublisherServiceTest, UnsubscribeAndWaitReturnsOnlyAfterTheRunningDelivery) {
  auto a = orn::MakeSimple<Receiver>();
  std::promise<void> entered;
  std::promise<void> proceed;
  std::shared_future<void> proceedFuture = proceed.get_future().share();
  std::atomic<bool> callbackEnded{false};
  a->SetHook([&](const DetectEvent&) {
    entered.set_value();
    proceedFuture.wait();
    callbackEnded = true;
  });
  ASSERT_EQ(subscription->Subscribe(a.Get()), 0);
  std::thread deliverer([&] { Publish(); });
  entered.get_future().wait();

  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    EXPECT_EQ(subscription->UnsubscribeAndWait(a.Get()), 0);
    EXPECT_TRUE(callbackEnded.load());
    EXPECT_EQ(OtherRefs(a.Get()), 0u);
    returned = true;
  });
  // Once the waiter has claimed the receiver, nobody else finds it.
  while (subscription->Unsubscribe(a.Get()) != orn::errors::kNotFound) std::this_thread::yield();
  EXPECT_FALSE(returned.load());
  proceed.set_value();
  waiter.join();
  deliverer.join();
  EXPECT_TRUE(returned.load());
}

TEST_F(PublisherServiceTest, ConcurrentPublishersAndSubscribersStayConsistent) {
  auto steady = Subscribed();
  std::atomic<bool> stop{false};
  std::vector<std::thread> publishers;
  for (int t = 0; t < 2; ++t)
    publishers.emplace_back([&] {
      while (!stop.load()) Publish();
    });
  for (int i = 0; i < 300; ++i) {
    auto r = Subscribed();
    const result_t u =
        i % 2 ? subscription->Unsubscribe(r.Get()) : subscription->UnsubscribeAndWait(r.Get());
    EXPECT_TRUE(u == 0 || (i % 2 && u == 1)) << u;
  }
  steady->WaitForCount(steady->Count() + 1);  // deliveries still flow
  stop = true;
  for (auto& t : publishers) t.join();
  EXPECT_EQ(OtherRefs(steady.Get()), 1u);
}

TEST_F(PublisherServiceTest, RemainingSubscribersAreReleasedWithTheService) {
  auto a = Subscribed();
  publisher.Reset();
  subscription.Reset();
  EXPECT_EQ(OtherRefs(a.Get()), 0u);
  EXPECT_EQ(host.allocator->Live(), 0u);
}

TEST(PublisherServiceCreation, RegistersTheNamedValueRecordsWhenASerializerIsOffered) {
  FakeHost host;
  auto serializer = orn::MakeSimple<RecordingSerializer>();
  host.locator->Provide<orn::IStorageSerializer2>(serializer.Get());
  orn::RefPtr<orn::IObject> object;
  ASSERT_EQ(CreateIntegrityMonitorPublisherService(host.locator.Get(), object.Ref()), 0);
  const auto types = serializer->Registered();
  ASSERT_EQ(types.size(), 2u);
  EXPECT_EQ(types[0]->typeId, 0xD1345CF5u);
  EXPECT_EQ(types[1]->typeId, 0x0EFA8E30u);
}

}  // namespace
}  // namespace pax
