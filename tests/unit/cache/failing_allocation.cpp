#include "tests/unit/cache/failing_allocation.h"

#include <cstdlib>
#include <new>

namespace {
int allocationsLeft = -1;
}  // namespace

void failAllocationAfter(int successes) {
  allocationsLeft = successes;
}

// A file of its own, so that the compiler does not see malloc through these and warns of a
// mismatch.
void* operator new(std::size_t size) {
  if (allocationsLeft == 0) {
    allocationsLeft = -1;
    throw std::bad_alloc();
  }
  if (allocationsLeft > 0) --allocationsLeft;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
