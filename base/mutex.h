// Macros for clang's thread-safety analysis, and mutexes with the annotations of this analysis.
//
// The standard library's mutexes have no annotations on this platform. Mutex and RecursiveMutex
// derive from the standard mutexes and add only the attributes. Other compilers see plain mutexes.
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#pragma once

#include <mutex>
#include <type_traits>

#if defined(__clang__)
#define PM_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define PM_THREAD_ATTRIBUTE(x)
#endif

#define PM_CAPABILITY(name) PM_THREAD_ATTRIBUTE(capability(name))
#define PM_SCOPED_CAPABILITY PM_THREAD_ATTRIBUTE(scoped_lockable)
#define PM_GUARDED_BY(mutex) PM_THREAD_ATTRIBUTE(guarded_by(mutex))
#define PM_PT_GUARDED_BY(mutex) PM_THREAD_ATTRIBUTE(pt_guarded_by(mutex))
#define PM_REQUIRES(...) PM_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define PM_ACQUIRE(...) PM_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define PM_RELEASE(...) PM_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define PM_TRY_ACQUIRE(...) PM_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define PM_ACQUIRED_BEFORE(...) PM_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define PM_ACQUIRED_AFTER(...) PM_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define PM_EXCLUDES(...) PM_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define PM_NO_THREAD_SAFETY_ANALYSIS PM_THREAD_ATTRIBUTE(no_thread_safety_analysis)

/// A std::mutex with annotations.
class PM_CAPABILITY("mutex") Mutex : public std::mutex {
 public:
  void lock() PM_ACQUIRE() { std::mutex::lock(); }
  void unlock() PM_RELEASE() { std::mutex::unlock(); }
  bool try_lock() PM_TRY_ACQUIRE(true) { return std::mutex::try_lock(); }
};

/// A std::recursive_mutex with annotations.
class PM_CAPABILITY("mutex") RecursiveMutex : public std::recursive_mutex {
 public:
  void lock() PM_ACQUIRE() { std::recursive_mutex::lock(); }
  void unlock() PM_RELEASE() { std::recursive_mutex::unlock(); }
  bool try_lock() PM_TRY_ACQUIRE(true) { return std::recursive_mutex::try_lock(); }
};

/// Holds a mutex for a scope, with annotations. A condition variable waits with `native()`. When
/// that wait returns, the mutex is held again, so the wait is correct even though the analysis does
/// not see it.
template <typename MutexType>
class PM_SCOPED_CAPABILITY Lock {
 public:
  explicit Lock(MutexType& mutex) PM_ACQUIRE(mutex) : mLock(mutex) {}
  ~Lock() PM_RELEASE() {}
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  auto& native() { return mLock; }

 private:
  // A lock of the standard mutex class: std::condition_variable accepts no other type.
  using Native = std::conditional_t<std::is_base_of_v<std::mutex, MutexType>, std::mutex,
                                    std::recursive_mutex>;
  std::unique_lock<Native> mLock;
};

/// Unlocks a mutex that the caller holds, and locks it again at the end of the scope. The analysis
/// understands both steps.
template <typename MutexType>
class PM_SCOPED_CAPABILITY Unlock {
 public:
  explicit Unlock(MutexType& mutex) PM_RELEASE(mutex) : mMutex(mutex) { mMutex.unlock(); }
  // PM_RELEASE() here marks the end of the scope. After that, the analysis treats the mutex as held
  // again.
  ~Unlock() PM_RELEASE() { mMutex.lock(); }
  Unlock(const Unlock&) = delete;
  Unlock& operator=(const Unlock&) = delete;

 private:
  MutexType& mMutex;
};
