#include "host/runtime/module_loader.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace arvo::host {
namespace {

constexpr char kModuleName[] = "libintegrity_monitor.so";

#ifndef ARVO_FIM_MODULE_DIR_FROM_BIN
#define ARVO_FIM_MODULE_DIR_FROM_BIN "../lib/arvo-fim"
#endif
constexpr const char* kModuleDirsFromBinary[] = {ARVO_FIM_MODULE_DIR_FROM_BIN, "../lib"};

std::string ExecutableDirectory() {
  std::string buffer(4096, '\0');
  const ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
  if (n <= 0 || static_cast<std::size_t>(n) >= buffer.size()) return {};
  buffer.resize(static_cast<std::size_t>(n));
  const std::size_t slash = buffer.rfind('/');
  return slash == std::string::npos ? std::string() : buffer.substr(0, slash);
}

bool FileExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

std::string DlErrorText() {
  const char* text = ::dlerror();
  return text ? text : "unknown error";
}

}  // namespace

std::string FindModuleBeside(const std::string& binaryDirectory) {
  for (const char* relative : kModuleDirsFromBinary) {
    std::string candidate =
        std::filesystem::path(binaryDirectory + "/" + relative + "/" + kModuleName)
            .lexically_normal()
            .string();
    if (FileExists(candidate)) return candidate;
  }
  return {};
}

std::string ResolveModulePath(const std::string& explicitPath) {
  if (!explicitPath.empty()) return explicitPath;
  if (const char* env = std::getenv("ARVO_FIM_MODULE"); env && *env) return env;
  if (const std::string dir = ExecutableDirectory(); !dir.empty()) {
    if (std::string besideUs = FindModuleBeside(dir); !besideUs.empty()) return besideUs;
  }
  return kModuleName;
}

ModuleLoader::ModuleLoader(ModuleLoader&& other) noexcept
    : m_handle(std::exchange(other.m_handle, nullptr)),
      m_path(std::move(other.m_path)),
      m_getObjectFactory(std::exchange(other.m_getObjectFactory, nullptr)),
      m_createObject(std::exchange(other.m_createObject, nullptr)),
      m_canUnloadModule(std::exchange(other.m_canUnloadModule, nullptr)) {}

ModuleLoader& ModuleLoader::operator=(ModuleLoader&& other) noexcept {
  if (this != &other) {
    Unload();
    m_handle = std::exchange(other.m_handle, nullptr);
    m_path = std::move(other.m_path);
    m_getObjectFactory = std::exchange(other.m_getObjectFactory, nullptr);
    m_createObject = std::exchange(other.m_createObject, nullptr);
    m_canUnloadModule = std::exchange(other.m_canUnloadModule, nullptr);
  }
  return *this;
}

ModuleLoader::~ModuleLoader() { Unload(); }

bool ModuleLoader::Load(const std::string& path, std::string& error) {
  Unload();
  m_path = path;
  ::dlerror();
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    error = "cannot load module '" + path + "': " + DlErrorText();
    return false;
  }
  const auto resolve = [&](const char* name) -> void* {
    ::dlerror();
    void* symbol = ::dlsym(handle, name);
    if (!symbol && error.empty()) error = "cannot load module '" + path + "': " + DlErrorText();
    return symbol;
  };
  error.clear();
  auto* getFactory = reinterpret_cast<orn::GetObjectFactoryFn>(resolve("ornGetObjectFactory"));
  auto* createObject = reinterpret_cast<orn::CreateObjectFn>(resolve("ornCreateObject"));
  auto* canUnload = reinterpret_cast<orn::CanUnloadModuleFn>(resolve("ornCanUnloadModule"));
  if (!getFactory || !createObject || !canUnload) {
    ::dlclose(handle);
    return false;
  }
  m_handle = handle;
  m_getObjectFactory = getFactory;
  m_createObject = createObject;
  m_canUnloadModule = canUnload;
  return true;
}

bool ModuleLoader::Unload() {
  if (!m_handle) return true;
  const orn::result_t busy = m_canUnloadModule();
  if (busy != 0) {
    std::fprintf(stderr,
                 "arvo-fim: module '%s' still has live objects (ornCanUnloadModule = %d); "
                 "leaving it loaded\n",
                 m_path.c_str(), busy);
  } else {
    ::dlclose(m_handle);
  }
  m_handle = nullptr;
  m_getObjectFactory = nullptr;
  m_createObject = nullptr;
  m_canUnloadModule = nullptr;
  return busy == 0;
}

}  // namespace arvo::host
