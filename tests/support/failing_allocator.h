// Makes allocations of this test program fail, to check that a failed call leaks nothing.
//
// This code replaces the C library's allocator in a test program, so the allocations of libraries
// fail, too. Sanitizers have their own allocator: in builds with sanitizers, only operator new
// fails and is counted.
#pragma once

#include <functional>

/// Whether malloc, calloc and realloc fail, too. It is false under sanitizers.
extern const bool kMallocFails;

/// Which allocations fail after the successful ones.
enum class Failing {
  kOne,  ///< only one allocation; the next allocations succeed again
  kAll   ///< each allocation until failAllocationsAfter or allowAllocations is called
};

/// This thread's next `successes` allocations succeed. After them, allocations fail.
void failAllocationsAfter(int successes, Failing failing = Failing::kOne);

/// All allocations succeed again.
/// @return whether one has failed since failAllocationsAfter
bool allowAllocations();

/// Allocations of the process that have not been freed. For tests of one thread.
long liveAllocations();

/// While an object of this class exists, this thread's allocations succeed.
class SparedAllocations {
 public:
  SparedAllocations();
  ~SparedAllocations();
  SparedAllocations(const SparedAllocations&) = delete;
  SparedAllocations& operator=(const SparedAllocations&) = delete;

 private:
  int mSuccessesLeft;
};

/// Like failEachAllocation, for an operation that returns whether it succeeded; `failing` is true
/// while an allocation may fail.
int failEachAllocationOf(const std::function<bool(bool failing)>& wentRight);

/// Runs `operation` several times: first its first allocation fails, then its second, and so on,
/// until no allocation is left to fail. For each of these allocations, `operation` runs twice: in
/// the first run only this allocation fails, in the second run all later allocations fail, too.
/// Each time, the operation must return its ordinary answer or an answer in `permitted`, or throw
/// std::bad_alloc. It must leak no memory, and a further call must return the ordinary answer.
/// Otherwise the test fails. Log lines are masked meanwhile, because their capture also allocates.
/// @return the number of allocations that were made to fail
template <typename Operation, typename... Permitted>
int failEachAllocation(Operation operation, const Permitted&... permitted) {
  const auto ordinary = operation();
  return failEachAllocationOf([&](bool failing) {
    const auto result = operation();
    return result == ordinary || (failing && (false || ... || (result == permitted)));
  });
}
