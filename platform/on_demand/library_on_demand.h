// A shared library that is mapped when it is first called.
//
// Some libraries bring many others with them and serve what a daemon in the modes off and manual
// never does. So the daemon, and only the daemon, is linked with functions of its own that stand
// for theirs of the same names and hand each call on. A test fails where the daemon needs one of
// those libraries at its start again.
#pragma once

#include <dlfcn.h>

#include "platform/log/log_line.h"

namespace on_demand {

/// Maps `name` for good: what a library started, such as a thread that resolves a host, may outlive
/// the call that needed it. @return null, with one LOG_ERR line, where it cannot be had
inline void* mapLibrary(const char* name) {
  void* const library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) logLine(LOG_ERR, "on_demand: no %s: %s", name, dlerror());
  return library;
}

/// Sets `function` to what `library` has under `name`. @return false, with one LOG_ERR line, where
/// it has none
template <typename Function>
bool find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (function == nullptr) logLine(LOG_ERR, "on_demand: no %s in the library: %s", name, dlerror());
  return function != nullptr;
}

}  // namespace on_demand
