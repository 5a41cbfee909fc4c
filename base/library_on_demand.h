// A shared library that is mapped when it is first called.
//
// A daemon in the modes off and manual never calls some of its libraries, and most commands of
// proxymanagerctl only need the bus. So these two programs contain functions that have the names of
// the library's functions and forward each call. Tests fail if one of the two programs maps such a
// library at its start again.
#pragma once

#include <dlfcn.h>

#include <atomic>

#include "base/log_line.h"
#include "base/mutex.h"

namespace on_demand {

/// Maps `name` and never unmaps it: a thread that a library started, for example to resolve a host,
/// may outlive the call that caused its start. @return null, with one LOG_ERR line, if it cannot be
/// mapped
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

/// A library and those of its functions that the program calls. `Functions` are pointers to these
/// functions. Any thread may use it. If a library is not available now, the next call looks for it
/// again, because memory or descriptors may be available then.
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
  Functions mFunctions{};  // written once, under mMutex, before mIsThere
};

}  // namespace on_demand
