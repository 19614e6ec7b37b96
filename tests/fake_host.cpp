#include "tests/fake_host.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace arvo::test {

orn::result_t RecordingTracer::OpenRecord(std::uint32_t level, orn::TraceRecord* record,
                                          std::size_t capacity) {
  std::lock_guard lock(m_mutex);
  ++m_openCalls;
  if (level == orn::kTraceGrowMarker) {
    auto it = m_open.find(record->buffer);
    if (m_refuseGrowth || it == m_open.end()) return orn::errors::kOutOfMemory;
    const std::uint32_t lineLevel = it->second;
    char* grown = static_cast<char*>(std::realloc(record->buffer, capacity));
    if (!grown) return orn::errors::kOutOfMemory;
    m_open.erase(it);
    m_open.emplace(grown, lineLevel);
    record->buffer = grown;
    record->capacity = capacity;
    return orn::errors::kOk;
  }
  if (level > m_maxLevel || m_refused.count(level)) return orn::errors::kFalse;
  char* buffer = static_cast<char*>(std::malloc(capacity));
  if (!buffer) return orn::errors::kOutOfMemory;
  m_open.emplace(buffer, level);
  record->buffer = buffer;
  record->capacity = capacity;
  record->length = 0;
  record->tracer = this;
  return orn::errors::kOk;
}

orn::result_t RecordingTracer::CommitRecord(char* buffer, std::size_t length) {
  {
    std::lock_guard lock(m_mutex);
    auto it = m_open.find(buffer);
    if (it == m_open.end()) return orn::errors::kInvalidArgument;
    m_lines.push_back({it->second, std::string(buffer, length)});
    m_open.erase(it);
    std::free(buffer);
  }
  m_changed.notify_all();
  return orn::errors::kOk;
}

void RecordingTracer::SetMaxLevel(std::uint32_t level) {
  std::lock_guard lock(m_mutex);
  m_maxLevel = level;
}
void RecordingTracer::RefuseLevel(std::uint32_t level) {
  std::lock_guard lock(m_mutex);
  m_refused.insert(level);
}
void RecordingTracer::RefuseGrowth(bool refuse) {
  std::lock_guard lock(m_mutex);
  m_refuseGrowth = refuse;
}

std::vector<TraceEntry> RecordingTracer::Lines() const {
  std::lock_guard lock(m_mutex);
  return m_lines;
}

std::vector<std::string> RecordingTracer::Texts(std::uint32_t level) const {
  std::lock_guard lock(m_mutex);
  std::vector<std::string> out;
  for (const auto& l : m_lines)
    if (l.level == level) out.push_back(l.text);
  return out;
}

bool RecordingTracer::Contains(const std::string& needle, std::uint32_t level) const {
  std::lock_guard lock(m_mutex);
  return std::any_of(m_lines.begin(), m_lines.end(), [&](const TraceEntry& l) {
    return (level == 0 || l.level == level) && l.text.find(needle) != std::string::npos;
  });
}

void RecordingTracer::WaitFor(const std::string& needle) {
  std::unique_lock lock(m_mutex);
  m_changed.wait(lock, [&] {
    return std::any_of(m_lines.begin(), m_lines.end(), [&](const TraceEntry& l) {
      return l.text.find(needle) != std::string::npos;
    });
  });
}

std::size_t RecordingTracer::OpenCalls() const {
  std::lock_guard lock(m_mutex);
  return m_openCalls;
}

void RecordingTracer::Clear() {
  std::lock_guard lock(m_mutex);
  m_lines.clear();
  m_openCalls = 0;
}

void* CountingAllocator::Allocate(std::size_t size) {
  if (m_fail) return nullptr;
  void* p = std::malloc(size);
  if (p) ++m_live;
  return p;
}

void CountingAllocator::Free(void* p) {
  if (!p) return;
  --m_live;
  std::free(p);
}

orn::result_t FakeLocator::GetService(orn::iid_t iid, orn::service_key_t key, void** out) {
  *out = nullptr;
  orn::RefPtr<orn::IObject> service;
  {
    std::lock_guard lock(m_mutex);
    m_lookups.push_back(iid);
    if (auto once = m_once.find(iid); once != m_once.end()) {
      if (once->second.skip == 0) {
        const orn::result_t failure = once->second.failure;
        m_once.erase(once);
        return failure;
      }
      --once->second.skip;
    }
    auto it = m_services.find({iid, key});
    if (it == m_services.end()) return orn::errors::kNoInterface;
    if (ORN_FAILED(it->second.failure)) return it->second.failure;
    service = it->second.service;
  }
  return service->QueryInterface(iid, out);
}

void FakeLocator::Provide(orn::iid_t iid, orn::IObject* service, orn::service_key_t key) {
  std::lock_guard lock(m_mutex);
  m_services[{iid, key}] = Entry{orn::RefPtr<orn::IObject>(service), 0};
}

void FakeLocator::Fail(orn::iid_t iid, orn::result_t failure, orn::service_key_t key) {
  std::lock_guard lock(m_mutex);
  m_services[{iid, key}] = Entry{nullptr, failure};
}

void FakeLocator::FailOnce(orn::iid_t iid, orn::result_t failure, std::size_t skip) {
  std::lock_guard lock(m_mutex);
  m_once[iid] = OneFailure{skip, failure};
}

void FakeLocator::Remove(orn::iid_t iid, orn::service_key_t key) {
  std::lock_guard lock(m_mutex);
  m_services.erase({iid, key});
}

void FakeLocator::Clear() {
  decltype(m_services) services;
  {
    std::lock_guard lock(m_mutex);
    services.swap(m_services);
  }
}

std::vector<orn::iid_t> FakeLocator::Lookups() const {
  std::lock_guard lock(m_mutex);
  return m_lookups;
}

FakeHost::FakeHost()
    : locator(orn::MakeSimple<FakeLocator>()),
      tracer(orn::MakeSimple<RecordingTracer>()),
      allocator(orn::MakeSimple<CountingAllocator>()) {
  locator->Provide<orn::ITracer>(tracer.Get());
  locator->Provide<orn::IAllocator>(allocator.Get());
}

FakeHost::~FakeHost() { locator->Clear(); }

LoadedModule::LoadedModule(const std::string& path) {
  m_handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!m_handle) {
    const char* e = ::dlerror();
    m_error = e ? e : "dlopen failed";
    return;
  }
  m_getFactory =
      reinterpret_cast<orn::GetObjectFactoryFn>(::dlsym(m_handle, "ornGetObjectFactory"));
  m_createObject = reinterpret_cast<orn::CreateObjectFn>(::dlsym(m_handle, "ornCreateObject"));
  m_canUnload = reinterpret_cast<orn::CanUnloadModuleFn>(::dlsym(m_handle, "ornCanUnloadModule"));
  if (!m_getFactory || !m_createObject || !m_canUnload) {
    m_error = "module lacks an entry point";
    ::dlclose(std::exchange(m_handle, nullptr));
  }
}

LoadedModule::~LoadedModule() {
  if (m_handle) ::dlclose(m_handle);
}

orn::result_t LoadedModule::GetObjectFactory(orn::IServiceLocator* locator, orn::clsid_t clsid,
                                             orn::IObjectFactory** factory) const {
  return m_getFactory(locator, clsid, factory);
}

orn::result_t LoadedModule::CreateObject(orn::clsid_t clsid, orn::IServiceLocator* locator,
                                         orn::IObject** object) const {
  return m_createObject(clsid, &locator, object);
}

orn::result_t LoadedModule::CanUnload() const { return m_canUnload(); }

}  // namespace arvo::test
