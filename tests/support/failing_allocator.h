// Lets allocations of this test program fail, to see what is left behind.
//
// Linked into a test program, this stands before the C library's allocator, so that the memory of
// libraries fails as well. Sanitizers have an allocator of their own: with them operator new alone
// fails and is counted.
#pragma once

#include <functional>

/// Whether malloc, calloc and realloc fail, too: not under sanitizers.
extern const bool kMallocFails;

/// What fails after the allocations that succeed.
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

/// As failEachAllocation, of an operation that says itself whether it went right; `failing` says
/// whether an allocation may fail meanwhile.
int failEachAllocationOf(const std::function<bool(bool failing)>& wentRight);

/// Runs `operation` with its first allocation failing, then with its second, and so on until it
/// needs no further one; each time once with that one failing alone, and once with all that follow.
/// Every time it gives the answer that it gives with memory, or an answer in `permitted`, or throws
/// std::bad_alloc; no memory is left behind; and a further call gives the ordinary answer. Else the
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
