#include "host/services/service_locator.h"

#include <gtest/gtest.h>

#include <atomic>

#include "orn/allocator.h"
#include "orn/tracer.h"

namespace arvo::host {
namespace {

// Answers two interfaces; remembers its own destruction. Holds the locator
// the way the module's publisher service does.
class Probe final : public orn::SimpleObject<orn::ITracer, orn::IAllocator> {
 public:
  explicit Probe(bool* destroyed) : m_destroyed(destroyed) {}
  ~Probe() override { *m_destroyed = true; }
  void* Allocate(std::size_t) override { return nullptr; }
  void Free(void*) override {}
  orn::RefPtr<orn::IServiceLocator> heldLocator;

 private:
  bool* m_destroyed;
};

TEST(ServiceLocatorTest, AnswersEachInterfaceWithItsSubObject) {
  bool destroyed = false;
  auto locator = orn::MakeSimple<ServiceLocator>();
  auto probe = orn::MakeSimple<Probe>(&destroyed);
  locator->Register<orn::ITracer>(probe.Get());
  locator->Register<orn::IAllocator>(probe.Get(), 7);

  orn::RefPtr<orn::ITracer> tracer;
  ASSERT_EQ(orn::GetInterface(locator.Get(), tracer.Ref()), orn::errors::kOk);
  EXPECT_EQ(tracer.Get(), static_cast<orn::ITracer*>(probe.Get()));
  orn::RefPtr<orn::IAllocator> allocator;
  ASSERT_EQ(orn::GetInterface(locator.Get(), allocator.Ref(), 7), orn::errors::kOk);
  EXPECT_EQ(allocator.Get(), static_cast<orn::IAllocator*>(probe.Get()));

  // The key is part of the identity: key 0 of the allocator is not served.
  void* out = reinterpret_cast<void*>(1);
  EXPECT_EQ(locator->GetService(orn::IidOf<orn::IAllocator>(), 0, &out), orn::errors::kNoInterface);
  EXPECT_EQ(out, nullptr);
  out = reinterpret_cast<void*>(1);
  EXPECT_EQ(locator->GetService(0x12345678, 0, &out), orn::errors::kNoInterface);
  EXPECT_EQ(out, nullptr);
}

TEST(ServiceLocatorTest, ClearBreaksAReferenceCycleWithAService) {
  bool destroyed = false;
  auto locator = orn::MakeSimple<ServiceLocator>();
  {
    auto probe = orn::MakeSimple<Probe>(&destroyed);
    probe->heldLocator = orn::RefPtr<orn::IServiceLocator>(locator.Get());
    locator->Register<orn::ITracer>(probe.Get());
  }
  EXPECT_FALSE(destroyed);
  locator->Clear();
  EXPECT_TRUE(destroyed);
  orn::RefPtr<orn::ITracer> tracer;
  EXPECT_EQ(orn::GetInterface(locator.Get(), tracer.Ref()), orn::errors::kNoInterface);
}

}  // namespace
}  // namespace arvo::host
