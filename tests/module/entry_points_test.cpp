// The module's exports as a host sees them: loaded with dlopen, driven only
// through the binary interface.
#include <gtest/gtest.h>

#include "app_core/task_manager/task/task.h"
#include "orn/ref_ptr.h"
#include "pax/fim_tasks.h"
#include "pax/integrity_monitor_publisher.h"
#include "tests/fake_host.h"

namespace {

using arvo::test::FakeHost;
using arvo::test::LoadedModule;

class EntryPoints : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(module.Ok()) << module.Error(); }
  LoadedModule module{ARVO_MODULE_PATH};
  FakeHost host;
};

TEST_F(EntryPoints, UnknownClassYieldsNotImplementedAndNullFactory) {
  orn::IObjectFactory* factory = reinterpret_cast<orn::IObjectFactory*>(0x1);
  EXPECT_EQ(module.GetObjectFactory(host.locator.Get(), 0x12345678, &factory),
            orn::errors::kNotImplemented);
  EXPECT_EQ(factory, nullptr);
  EXPECT_EQ(module.CanUnload(), 0);
}

TEST_F(EntryPoints, CreateObjectKnowsOnlyThePublisherService) {
  orn::IObject* object = reinterpret_cast<orn::IObject*>(0x1);
  EXPECT_EQ(module.CreateObject(pax::fim::kIntegrityMonitorTaskClsid, host.locator.Get(), &object),
            orn::errors::kClassNotFound);
  EXPECT_EQ(module.CreateObject(0x12345678, host.locator.Get(), &object),
            orn::errors::kClassNotFound);
  EXPECT_EQ(object, reinterpret_cast<orn::IObject*>(0x1));  // untouched

  ASSERT_EQ(module.CreateObject(pax::fim::kIntegrityMonitorPublisherServiceClsid,
                                host.locator.Get(), &object),
            0);
  auto service = orn::RefPtr<orn::IObject>::Adopt(object);
  orn::RefPtr<pax::IIntegrityMonitorPublisher> publisher;
  orn::RefPtr<mdr::agent::IFileIntegrityMonitorDetectEventSubscription> subscription;
  EXPECT_EQ(orn::QueryInterface(service.Get(), publisher), 0);
  EXPECT_EQ(orn::QueryInterface(service.Get(), subscription), 0);
  EXPECT_EQ(module.CanUnload(), 1);
  service.Reset();
  publisher.Reset();
  subscription.Reset();
  EXPECT_EQ(module.CanUnload(), 0);
}

TEST_F(EntryPoints, FactoriesHoldTheModuleLockAndAnswerTheirInterfaces) {
  for (orn::clsid_t clsid :
       {pax::fim::kIntegrityMonitorTaskClsid, pax::fim::kOnDemandIntegrityMonitorTaskClsid}) {
    orn::RefPtr<orn::IObjectFactory> factory;
    ASSERT_EQ(module.GetObjectFactory(host.locator.Get(), clsid, factory.Ref()), 0);
    EXPECT_EQ(module.CanUnload(), 1);
    // Net count 1: one AddRef/Release pair returns to it.
    EXPECT_EQ(factory->AddRef(), 2u);
    EXPECT_EQ(factory->Release(), 1u);

    orn::RefPtr<orn::IObject> root;
    orn::RefPtr<orn::IObjectFactory> again;
    EXPECT_EQ(factory->QueryInterface(0, root.RefVoid()), 0);
    EXPECT_EQ(factory->QueryInterface(orn::IObjectFactory::kIid, again.RefVoid()), 0);
    EXPECT_EQ(static_cast<void*>(root.Get()), static_cast<void*>(factory.Get()));
    orn::RefPtr<orn::IObject> none;
    EXPECT_EQ(factory->QueryInterface(app_core::task_manager::task::ITask::kIid, none.RefVoid()),
              orn::errors::kNoInterface);
    EXPECT_EQ(none.Get(), nullptr);
    root.Reset();
    again.Reset();
    factory.Reset();
    EXPECT_EQ(module.CanUnload(), 0);
  }
}

TEST_F(EntryPoints, CreateInstanceWithoutAllocatorReturnsTheLookupResult) {
  orn::RefPtr<orn::IObjectFactory> factory;
  ASSERT_EQ(module.GetObjectFactory(host.locator.Get(), pax::fim::kIntegrityMonitorTaskClsid,
                                    factory.Ref()),
            0);
  host.locator->Remove(orn::IAllocator::kIid);
  void* task = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(
      factory->CreateInstance(host.locator.Get(), app_core::task_manager::task::ITask::kIid, &task),
      orn::errors::kNoInterface);
  EXPECT_EQ(task, nullptr);
  host.locator->Fail(orn::IAllocator::kIid, orn::errors::kAccessDenied);
  EXPECT_EQ(
      factory->CreateInstance(host.locator.Get(), app_core::task_manager::task::ITask::kIid, &task),
      orn::errors::kAccessDenied);
  factory.Reset();
  EXPECT_EQ(module.CanUnload(), 0);
}

TEST_F(EntryPoints, TrapClassTerminates) {
  EXPECT_DEATH(
      {
        orn::IObjectFactory* f = nullptr;
        (void)module.GetObjectFactory(host.locator.Get(), 0xBAD1BAD1, &f);
      },
      "");
  EXPECT_DEATH(
      {
        orn::IObject* o = nullptr;
        (void)module.CreateObject(0xBAD1BAD1, host.locator.Get(), &o);
      },
      "");
}

}  // namespace
