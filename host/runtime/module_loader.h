// Loading libintegrity_monitor.so and resolving its three entry points.
#pragma once

#include <string>

#include "orn/module.h"

namespace arvo::host {

// Where the module is looked for, first match wins: `explicitPath` (from
// --module) when non-empty; $ARVO_FIM_MODULE when set and non-empty; the
// module beside the binary (FindModuleBeside of the directory of
// /proc/self/exe); else the bare name, which dlopen resolves through the
// normal library search path.
std::string ResolveModulePath(const std::string& explicitPath);

// The first existing of, relative to `binaryDirectory`: the package's
// private library directory as installed (ARVO_FIM_MODULE_DIR_FROM_BIN, set
// by the build from the install directories, e.g.
// "../lib/x86_64-linux-gnu/arvo-fim"), then the build tree's "../lib".
// Relative, so an installed tree moved elsewhere (an unpacked package) still
// finds its own module. Empty when neither exists.
std::string FindModuleBeside(const std::string& binaryDirectory);

// An opened module. Move-only; the entry points are valid while it lives.
// Not thread-safe itself; the entry points may be called from any thread.
class ModuleLoader {
 public:
  ModuleLoader() = default;
  ModuleLoader(const ModuleLoader&) = delete;
  ModuleLoader& operator=(const ModuleLoader&) = delete;
  ModuleLoader(ModuleLoader&& other) noexcept;
  ModuleLoader& operator=(ModuleLoader&& other) noexcept;
  // Unloads the module, unless ornCanUnloadModule says objects of it are
  // still alive: then the leak is reported on stderr and the library stays
  // mapped (unmapping code that live objects point into would crash later).
  ~ModuleLoader();

  // dlopen(RTLD_NOW | RTLD_LOCAL) and dlsym of the three exports. On failure
  // returns false and sets `error` to
  //   "cannot load module '<path>': <dlerror text>".
  bool Load(const std::string& path, std::string& error);

  bool Loaded() const { return m_handle != nullptr; }
  const std::string& Path() const { return m_path; }

  orn::GetObjectFactoryFn GetObjectFactory() const { return m_getObjectFactory; }
  orn::CreateObjectFn CreateObject() const { return m_createObject; }
  orn::CanUnloadModuleFn CanUnloadModule() const { return m_canUnloadModule; }

  // Closes the module now (see the destructor). Returns false when it had
  // to stay loaded because objects are alive.
  bool Unload();

 private:
  void* m_handle = nullptr;
  std::string m_path;
  orn::GetObjectFactoryFn m_getObjectFactory = nullptr;
  orn::CreateObjectFn m_createObject = nullptr;
  orn::CanUnloadModuleFn m_canUnloadModule = nullptr;
};

}  // namespace arvo::host
