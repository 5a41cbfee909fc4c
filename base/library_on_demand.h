// A shared library that is mapped at the first call of one of its functions.
//
// In the modes off and manual, the daemon never calls some of its libraries. Most commands of
// proxymanagerctl need only the bus. So the daemon and proxymanagerctl contain functions with the
// same names as the functions of such a library. Each of these functions forwards its calls to the
// library. Tests fail if one of the two programs maps such a library at its start.
#pragma once

#include <dlfcn.h>

#include <atomic>

#include "base/log_line.h"
#include "base/mutex.h"

namespace on_demand {

/// Maps `name` and never unmaps it. A library may start a thread, for example to resolve a host,
/// and this thread may still run after the call that started it. @return null, with one LOG_ERR
/// line, if the library cannot be mapped
inline void* mapLibrary(const char* name) {
  void* const library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) logLine(LOG_ERR, "on_demand: no %s: %s", name, dlerror());
  return library;
}

/// Sets `function` to the function `name` of `library`. @return false, with one LOG_ERR line, if
/// the library has no such function
template <typename Function>
bool find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (function == nullptr) logLine(LOG_ERR, "on_demand: no %s in the library: %s", name, dlerror());
  return function != nullptr;
}

/// A library that is mapped at the first call. `Functions` is a struct with a pointer for each
/// library function that the program calls. Any thread may use it. If the library cannot be mapped,
/// the next call tries again, because memory or descriptors may be free by then.
template <typename Functions>
class Library {
 public:
  using FindAll = bool (*)(void* library, Functions& found);
  constexpr Library(const char* name, FindAll findAll) : mName(name), mFindAll(findAll) {}

  /// @return null, with a LOG_ERR line, if the library is not available
  const Functions* functions() PM_EXCLUDES(mMutex) {
    if (mIsThere.load(std::memory_order_acquire)) return &mFunctions;
    const Lock lock(mMutex);
    if (!mIsThere) {
      void* const library = mapLibrary(mName);
      if (library == nullptr || !mFindAll(library, mFunctions)) return nullptr;
      mIsThere.store(true, std::memory_order_release);
    }
    return &mFunctions;
  }

 private:
  const char* const mName;
  const FindAll mFindAll;
  Mutex mMutex;
  std::atomic<bool> mIsThere{false};
  Functions mFunctions{};  // written once, under mMutex, before mIsThere becomes true
};

}  // namespace on_demand
