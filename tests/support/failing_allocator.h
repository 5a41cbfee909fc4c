// Lets allocations of this test program fail, to check that nothing is left behind.
//
// This code replaces the C library's allocator in a test program, so the allocations of libraries
// fail, too. Sanitizers have an allocator of their own: with them operator new alone fails and is
// counted.
#pragma once

#include <functional>

/// Whether malloc, calloc and realloc fail, too: not under sanitizers.
extern const bool kMallocFails;

/// The allocations that fail after those that succeed.
enum class Failing {
  kOne,  ///< one allocation; the next ones succeed again
  kAll   ///< each one, until failAllocationsAfter or allowAllocations is called
};

/// This thread's allocations succeed `successes` times more and fail then.
void failAllocationsAfter(int successes, Failing failing = Failing::kOne);

/// All allocations succeed again.
/// @return whether one has failed since failAllocationsAfter
bool allowAllocations();

/// Allocations of the process that have not been freed. For tests of one thread.
long liveAllocations();

/// While one lives, this thread's allocations succeed.
class SparedAllocations {
 public:
  SparedAllocations();
  ~SparedAllocations();
  SparedAllocations(const SparedAllocations&) = delete;
  SparedAllocations& operator=(const SparedAllocations&) = delete;

 private:
  int mSuccessesLeft;
};

/// As failEachAllocation, for an operation that itself returns whether it succeeded; `failing` is
/// true while an allocation may fail.
int failEachAllocationOf(const std::function<bool(bool failing)>& wentRight);

/// Runs `operation` with its first allocation failing, then with its second, and so on until it
/// needs no further one; each time once with that one failing alone, and once with all that follow.
/// Each time the operation returns its ordinary answer or an answer in `permitted`, or throws
/// std::bad_alloc; no memory is leaked; and a further call returns the ordinary answer. Else the
/// test fails. Log lines are masked meanwhile, for their capture allocates too.
/// @return how many allocations failed one after the other
template <typename Operation, typename... Permitted>
int failEachAllocation(Operation operation, const Permitted&... permitted) {
  const auto ordinary = operation();
  return failEachAllocationOf([&](bool failing) {
    const auto result = operation();
    return result == ordinary || (failing && (false || ... || (result == permitted)));
  });
}
