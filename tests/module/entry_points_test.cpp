// The module's exports as a host sees them: loaded with dlopen, driven only
// through the binary interface.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

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

// A task whose constructor cannot get its allocator or tracer is not
// created: the on-access task throws the result exception with the interface
// id, the on-demand task the lookup exception of the throwing service lookup,
// and the factory writes the exception's description through the locator's
// tracer when it can get one. Here the constructor's lookup fails once and
// the factory's later one succeeds, so the line is written.
TEST_F(EntryPoints, AFailedLookupInATaskConstructorIsTracedWithItsException) {
  struct Case {
    orn::clsid_t clsid;
    orn::iid_t iid;
    std::size_t skip;  // lookups of iid before the constructor's
    std::string description;
  };
  const std::string onAccess =
      "Exception during object construction: Can't get interface "
      "integrity_monitor/src/integrity_monitor_task.cpp:";
  const std::string onDemand =
      "Exception during object construction: Can't get interface objclient:103 "
      "<typeid=orn::GetInterfaceException> Properties:\n  orn.iid = ";
  const Case cases[] = {
      // The factory asks for the allocator first, then the constructor.
      {pax::fim::kIntegrityMonitorTaskClsid, orn::IAllocator::kIid, 1, onAccess},
      {pax::fim::kIntegrityMonitorTaskClsid, orn::ITracer::kIid, 0, onAccess},
      {pax::fim::kOnDemandIntegrityMonitorTaskClsid, orn::IAllocator::kIid, 1, onDemand},
      {pax::fim::kOnDemandIntegrityMonitorTaskClsid, orn::ITracer::kIid, 0, onDemand},
  };
  for (const Case& c : cases) {
    char iid[16];
    std::snprintf(iid, sizeof iid, "0x%08x", c.iid);
    host.tracer->Clear();
    orn::RefPtr<orn::IObjectFactory> factory;
    ASSERT_EQ(module.GetObjectFactory(host.locator.Get(), c.clsid, factory.Ref()), 0);
    host.locator->FailOnce(c.iid, orn::errors::kAccessDenied, c.skip);
    void* task = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(factory->CreateInstance(host.locator.Get(), app_core::task_manager::task::ITask::kIid,
                                      &task),
              orn::errors::kAccessDenied);
    EXPECT_EQ(task, nullptr);
    const std::vector<std::string> lines = host.tracer->Texts(orn::kTraceLevelError);
    ASSERT_EQ(lines.size(), 1u) << iid;
    const std::string& line = lines[0];
    EXPECT_EQ(line.rfind(c.description, 0), 0u) << line;
    if (c.clsid == pax::fim::kIntegrityMonitorTaskClsid) {
      EXPECT_NE(line.find(" <typeid=orn::ResultCodeException> Properties:\n  orn.iid = " +
                          std::string(iid) + "\n  orn.result = 0x80000045 (Access denied)"),
                std::string::npos)
          << line;
    } else {
      EXPECT_EQ(line, c.description + iid +
                          "\n  orn.serviceKey = 0x00000000\n  orn.result = 0x80000045 (Access "
                          "denied)");
    }
    factory.Reset();
    EXPECT_EQ(module.CanUnload(), 0);
    EXPECT_EQ(host.allocator->Live(), 0u);
  }
}

// The module calls the host's tracer whether or not it keeps the
// interface's default operations: a default OpenRecord refuses every line,
// so a tracer keeping both defaults silences the module, and one that
// overrides OpenRecord only is asked for every line and its default commit
// is harmless.
TEST_F(EntryPoints, TracersKeepingTheDefaultOperationsWorkAcrossTheModuleBoundary) {
  class DefaultTracer final : public orn::SimpleObject<orn::ITracer> {};
  class OpenOnlyTracer final : public orn::SimpleObject<orn::ITracer> {
   public:
    orn::result_t OpenRecord(std::uint32_t level, orn::TraceRecord* record,
                             std::size_t capacity) override {
      if (level != orn::kTraceGrowMarker) ++opens;
      record->buffer = m_buffer;
      record->capacity = sizeof m_buffer < capacity ? sizeof m_buffer : capacity;
      return level == orn::kTraceGrowMarker ? orn::errors::kNotSupported : 0;
    }
    std::atomic<int> opens{0};

   private:
    char m_buffer[4096];
  };
  for (int kind = 0; kind < 2; ++kind) {
    FakeHost bare;
    orn::RefPtr<orn::ITracer> tracer;
    if (kind == 0) {
      tracer = orn::MakeSimple<DefaultTracer>();
    } else {
      tracer = orn::MakeSimple<OpenOnlyTracer>();
    }
    bare.locator->Provide<orn::ITracer>(tracer.Get());
    orn::RefPtr<orn::IObjectFactory> factory;
    ASSERT_EQ(module.GetObjectFactory(bare.locator.Get(), pax::fim::kIntegrityMonitorTaskClsid,
                                      factory.Ref()),
              0);
    // FinalConstruct fails on the missing inotify provider, tracing it.
    orn::RefPtr<orn::IObject> task;
    EXPECT_EQ(factory->CreateInstance(bare.locator.Get(), 0, task.RefVoid()),
              orn::errors::kNoInterface);
    if (kind == 1) {
      EXPECT_GE(static_cast<OpenOnlyTracer*>(tracer.Get())->opens.load(), 2);
    }
    factory.Reset();
    bare.locator->Clear();
  }
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
