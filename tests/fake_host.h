// The recording fake host used by module and host tests: a locator whose
// services can be present, absent or failing, a tracer that records every
// committed line with its level, an allocator that counts, and a loader that
// opens the real module with dlopen the way a host does.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "orn/allocator.h"
#include "orn/module.h"
#include "orn/ref_ptr.h"
#include "orn/service_locator.h"
#include "orn/simple_object.h"
#include "orn/tracer.h"

namespace arvo::test {

struct TraceEntry {
  std::uint32_t level;
  std::string text;
};

// Thread-safe. Accepts levels up to MaxLevel (default 800) except refused
// ones; growth can be refused to test truncation.
class RecordingTracer final : public orn::SimpleObject<orn::ITracer> {
 public:
  orn::result_t OpenRecord(std::uint32_t level, orn::TraceRecord* record,
                           std::size_t capacity) override;
  orn::result_t CommitRecord(char* buffer, std::size_t length) override;

  void SetMaxLevel(std::uint32_t level);
  void RefuseLevel(std::uint32_t level);
  void RefuseGrowth(bool refuse);

  std::vector<TraceEntry> Lines() const;
  std::vector<std::string> Texts(std::uint32_t level) const;
  // True when some committed line contains `needle` (at `level`, if non-zero).
  bool Contains(const std::string& needle, std::uint32_t level = 0) const;
  // Blocks until a line containing `needle` is committed.
  void WaitFor(const std::string& needle);
  std::size_t OpenCalls() const;
  void Clear();

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::uint32_t m_maxLevel = 800;
  std::set<std::uint32_t> m_refused;
  bool m_refuseGrowth = false;
  std::map<char*, std::uint32_t> m_open;  // buffer -> level
  std::vector<TraceEntry> m_lines;
  std::size_t m_openCalls = 0;
};

// Counts live blocks; can be told to fail.
class CountingAllocator final : public orn::SimpleObject<orn::IAllocator> {
 public:
  void* Allocate(std::size_t size) override;
  void Free(void* p) override;
  void FailAllocations(bool fail) { m_fail = fail; }
  std::size_t Live() const { return m_live.load(); }

 private:
  std::atomic<std::size_t> m_live{0};
  std::atomic<bool> m_fail{false};
};

// Thread-safe service registry. Records every lookup in order.
class FakeLocator final : public orn::SimpleObject<orn::IServiceLocator> {
 public:
  orn::result_t GetService(orn::iid_t iid, orn::service_key_t key, void** out) override;

  void Provide(orn::iid_t iid, orn::IObject* service, orn::service_key_t key = 0);
  template <class T>
  void Provide(T* service, orn::service_key_t key = 0) {
    Provide(orn::IidOf<T>(), service, key);
  }
  // Lookups of iid answer `failure` until Provide or Remove.
  void Fail(orn::iid_t iid, orn::result_t failure, orn::service_key_t key = 0);
  // The lookup of iid (any key) that comes after `skip` more lookups of it
  // answers `failure`, once; the others answer as usual.
  void FailOnce(orn::iid_t iid, orn::result_t failure, std::size_t skip = 0);
  void Remove(orn::iid_t iid, orn::service_key_t key = 0);
  // Drops every service (breaks reference cycles at the end of a test).
  void Clear();
  std::vector<orn::iid_t> Lookups() const;

 private:
  struct Entry {
    orn::RefPtr<orn::IObject> service;
    orn::result_t failure = 0;
  };
  mutable std::mutex m_mutex;
  std::map<std::pair<orn::iid_t, orn::service_key_t>, Entry> m_services;
  struct OneFailure {
    std::size_t skip;
    orn::result_t failure;
  };
  std::map<orn::iid_t, OneFailure> m_once;
  std::vector<orn::iid_t> m_lookups;
};

// A locator with a counting allocator and a recording tracer registered.
struct FakeHost {
  FakeHost();
  ~FakeHost();
  orn::RefPtr<FakeLocator> locator;
  orn::RefPtr<RecordingTracer> tracer;
  orn::RefPtr<CountingAllocator> allocator;
};

// The module opened with dlopen (RTLD_NOW | RTLD_LOCAL); closed on destruction.
class LoadedModule {
 public:
  explicit LoadedModule(const std::string& path);
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  bool Ok() const { return m_handle != nullptr; }
  const std::string& Error() const { return m_error; }
  orn::result_t GetObjectFactory(orn::IServiceLocator* locator, orn::clsid_t clsid,
                                 orn::IObjectFactory** factory) const;
  orn::result_t CreateObject(orn::clsid_t clsid, orn::IServiceLocator* locator,
                             orn::IObject** object) const;
  orn::result_t CanUnload() const;

 private:
  void* m_handle = nullptr;
  std::string m_error;
  orn::GetObjectFactoryFn m_getFactory = nullptr;
  orn::CreateObjectFn m_createObject = nullptr;
  orn::CanUnloadModuleFn m_canUnload = nullptr;
};

}  // namespace arvo::test
