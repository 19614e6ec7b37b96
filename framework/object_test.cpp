#include "framework/object.h"

#include <gtest/gtest.h>

#include "framework/service.h"
#include "tests/fake_host.h"

namespace {

class IFoo : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x0F000001);
  virtual int Foo() = 0;

 protected:
  ~IFoo() = default;
};

class IBar : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x0F000002);
  virtual int Bar() = 0;

 protected:
  ~IBar() = default;
};

struct Probe {
  int constructed = 0;
  int finalReleased = 0;
  int destroyed = 0;
  result_t finalConstruct = 0;
  bool throwInCtor = false;
};
Probe g_probe;

class Thing : public IFoo, public IBar, public orn::ObjectRootEx {
 public:
  using Interfaces = orn::Ifaces<IFoo, IBar>;
  explicit Thing(orn::IServiceLocator* sl) : ObjectRootEx(sl) {
    if (g_probe.throwInCtor)
      throw orn::ResultCodeException(__FILE__, __LINE__, orn::errors::kLocked);
    ++g_probe.constructed;
  }
  ~Thing() { ++g_probe.destroyed; }
  result_t FinalConstruct() { return g_probe.finalConstruct; }
  void FinalRelease() { ++g_probe.finalReleased; }
  int Foo() override { return 1; }
  int Bar() override { return 2; }
};

class ObjectModel : public ::testing::Test {
 protected:
  void SetUp() override { g_probe = Probe{}; }
  arvo::test::FakeHost host;
};

TEST_F(ObjectModel, CreateInstanceQueriesAndHoldsTheModuleLock) {
  const std::uint32_t before = orn::ModuleLock::Count();
  void* p = nullptr;
  ASSERT_EQ(orn::CreateLocatorObject<Thing>(host.locator.Get(), IBar::kIid, &p), 0);
  auto bar = orn::RefPtr<IBar>::Adopt(static_cast<IBar*>(p));
  EXPECT_EQ(bar->Bar(), 2);
  EXPECT_EQ(orn::ModuleLock::Count(), before + 1);
  EXPECT_EQ(host.allocator->Live(), 1u);

  orn::RefPtr<IFoo> foo, root;
  EXPECT_EQ(orn::QueryInterface(bar.Get(), foo), 0);
  ASSERT_EQ(bar->QueryInterface(0, root.RefVoid()), 0);
  EXPECT_EQ(root.Get(), foo.Get());  // iid 0 answers the first interface
  orn::RefPtr<IFoo> none;
  EXPECT_EQ(bar->QueryInterface(0x12345678, none.RefVoid()), orn::errors::kNoInterface);
  EXPECT_EQ(none.Get(), nullptr);

  bar.Reset();
  foo.Reset();
  root.Reset();
  EXPECT_EQ(g_probe.finalReleased, 1);
  EXPECT_EQ(g_probe.destroyed, 1);
  EXPECT_EQ(orn::ModuleLock::Count(), before);
  EXPECT_EQ(host.allocator->Live(), 0u);
}

TEST_F(ObjectModel, FailedFinalConstructDestroysTheObject) {
  g_probe.finalConstruct = orn::errors::kUnspecified;
  const std::uint32_t before = orn::ModuleLock::Count();
  void* p = reinterpret_cast<void*>(1);
  EXPECT_EQ(orn::CreateLocatorObject<Thing>(host.locator.Get(), IFoo::kIid, &p),
            orn::errors::kUnspecified);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(g_probe.destroyed, 1);
  EXPECT_EQ(g_probe.finalReleased, 0);
  EXPECT_EQ(orn::ModuleLock::Count(), before);
  EXPECT_EQ(host.allocator->Live(), 0u);
}

TEST_F(ObjectModel, UnansweredIidDestroysTheNewObject) {
  void* p = nullptr;
  EXPECT_EQ(orn::CreateLocatorObject<Thing>(host.locator.Get(), 0x55, &p),
            orn::errors::kNoInterface);
  EXPECT_EQ(g_probe.destroyed, 1);
  EXPECT_EQ(host.allocator->Live(), 0u);
}

TEST_F(ObjectModel, MissingAllocatorReturnsTheLookupResult) {
  host.locator->Fail(orn::IAllocator::kIid, orn::errors::kAccessDenied);
  void* p = nullptr;
  EXPECT_EQ(orn::CreateLocatorObject<Thing>(host.locator.Get(), IFoo::kIid, &p),
            orn::errors::kAccessDenied);
  host.locator->Remove(orn::IAllocator::kIid);
  EXPECT_EQ(orn::CreateLocatorObject<Thing>(host.locator.Get(), IFoo::kIid, &p),
            orn::errors::kNoInterface);
  EXPECT_EQ(g_probe.constructed, 0);
}

TEST_F(ObjectModel, ConstructorExceptionIsConvertedAndTraced) {
  g_probe.throwInCtor = true;
  void* p = nullptr;
  EXPECT_EQ(orn::CreateLocatorObject<Thing>(host.locator.Get(), IFoo::kIid, &p),
            orn::errors::kLocked);
  EXPECT_TRUE(host.tracer->Contains("Exception during object construction: ", 300));
  EXPECT_EQ(host.allocator->Live(), 0u);
}

TEST_F(ObjectModel, ExhaustedAllocatorYieldsOutOfMemory) {
  host.allocator->FailAllocations(true);
  void* p = nullptr;
  EXPECT_EQ(orn::CreateLocatorObject<Thing>(host.locator.Get(), IFoo::kIid, &p),
            orn::errors::kOutOfMemory);
}

TEST_F(ObjectModel, TracerIsOptionalForLocatorObjects) {
  host.locator->Remove(orn::ITracer::kIid);
  void* p = nullptr;
  ASSERT_EQ(orn::CreateLocatorObject<Thing>(host.locator.Get(), IFoo::kIid, &p), 0);
  auto foo = orn::RefPtr<IFoo>::Adopt(static_cast<IFoo*>(p));
  EXPECT_EQ(static_cast<Thing*>(foo.Get())->GetTracer(), nullptr);
}

}  // namespace
