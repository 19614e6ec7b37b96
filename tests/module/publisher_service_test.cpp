// The publisher service made by the loaded module, as the host and the
// subscribing components see it.
#include <gtest/gtest.h>

#include "orn/ref_ptr.h"
#include "pax/fim_tasks.h"
#include "pax/integrity_monitor_publisher.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"

namespace {

using arvo::test::FakeHost;
using arvo::test::LoadedModule;
using arvo::test::RecordingDetectReceiver;
using arvo::test::RecordingSerializer;

TEST(PublisherServiceModuleTest, LivesInHostMemoryRegistersRecordsAndReleasesSubscribers) {
  LoadedModule module{ARVO_MODULE_PATH};
  ASSERT_TRUE(module.Ok()) << module.Error();
  FakeHost host;
  auto serializer = orn::MakeSimple<RecordingSerializer>();
  host.locator->Provide<orn::IStorageSerializer2>(serializer.Get());
  orn::RefPtr<orn::IObject> service;
  ASSERT_EQ(module.CreateObject(pax::fim::kIntegrityMonitorPublisherServiceClsid,
                                host.locator.Get(), service.Ref()),
            0);
  EXPECT_GT(host.allocator->Live(), 0u);
  const auto types = serializer->Registered();
  ASSERT_EQ(types.size(), 2u);
  EXPECT_STREQ(types[0]->typeName, "RuntimeField");
  EXPECT_STREQ(types[1]->typeName, "AdditionalField");

  orn::RefPtr<pax::IIntegrityMonitorPublisher> publisher;
  orn::RefPtr<mdr::agent::IFileIntegrityMonitorDetectEventSubscription> subscription;
  ASSERT_EQ(orn::QueryInterface(service.Get(), publisher), 0);
  ASSERT_EQ(orn::QueryInterface(service.Get(), subscription), 0);
  EXPECT_EQ(static_cast<void*>(service.Get()), static_cast<void*>(publisher.Get()));
  orn::RefPtr<orn::IObject> none;
  EXPECT_EQ(service->QueryInterface(0x12345678, none.RefVoid()), orn::errors::kNoInterface);
  EXPECT_EQ(none.Get(), nullptr);

  auto receiver = orn::MakeSimple<RecordingDetectReceiver>();
  ASSERT_EQ(subscription->Subscribe(receiver.Get()), 0);
  EXPECT_EQ(publisher->PublishDetectEvent(0, "/etc/hosts", nullptr, nullptr), 0);
  EXPECT_EQ(receiver->Detections().at(0).path, "/etc/hosts");

  publisher.Reset();
  subscription.Reset();
  service.Reset();
  EXPECT_EQ(host.allocator->Live(), 0u);
  EXPECT_EQ(module.CanUnload(), 0);
  EXPECT_EQ(receiver->AddRef(), 2u);  // the service's reference is gone
  receiver->Release();
}

}  // namespace
