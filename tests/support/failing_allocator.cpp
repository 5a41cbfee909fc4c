#include "tests/support/failing_allocator.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

// No operation of the tests needs so many allocations. An operation that needs more has an endless
// loop.
constexpr int kMostAllocations = 20'000;

constexpr int kNoneFails = -1;
thread_local int successesLeft = kNoneFails;
thread_local bool allFail = false;
thread_local bool hasFailed = false;
std::atomic<long> live{0};

bool refused() {
  if (successesLeft == kNoneFails) return false;
  if (successesLeft > 0) {
    --successesLeft;
    return false;
  }
  hasFailed = true;
  if (!allFail) successesLeft = kNoneFails;
  errno = ENOMEM;
  return true;
}

void* counted(void* memory) {
  if (memory != nullptr) ++live;
  return memory;
}

void uncount(const void* memory) {
  if (memory != nullptr) --live;
}

}  // namespace

const bool kMallocFails = !PROXYMANAGER_SANITIZED;

#if PROXYMANAGER_SANITIZED
// These operators are in a separate file. In the file of a test, the compiler would see that they
// call malloc, and would warn of a mismatch.
void* operator new(std::size_t size) {
  if (refused()) throw std::bad_alloc();
  if (void* const memory = counted(std::malloc(size))) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  uncount(memory);
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}
#else
// The C library exports its allocator under these names too, so code that replaces malloc can call
// it. operator new of the C++ library calls malloc.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);

void* malloc(std::size_t size) {
  return refused() ? nullptr : counted(__libc_malloc(size));
}
void* calloc(std::size_t count, std::size_t size) {
  return refused() ? nullptr : counted(__libc_calloc(count, size));
}
void* realloc(void* memory, std::size_t size) {
  if (refused()) return nullptr;
  void* const larger = __libc_realloc(memory, size);
  return memory == nullptr ? counted(larger) : larger;
}
void free(void* memory) {
  uncount(memory);
  __libc_free(memory);
}
}
#endif

void failAllocationsAfter(int successes, Failing failing) {
  allFail = failing == Failing::kAll;
  hasFailed = false;
  successesLeft = successes;
}

bool allowAllocations() {
  successesLeft = kNoneFails;
  return hasFailed;
}

long liveAllocations() {
  return live;
}

SparedAllocations::SparedAllocations() : mSuccessesLeft(successesLeft) {
  successesLeft = kNoneFails;
}
SparedAllocations::~SparedAllocations() {
  successesLeft = mSuccessesLeft;
}

namespace {

enum class Outcome { kUntouched, kBorne, kWrong };

Outcome runFailing(const std::function<bool(bool)>& wentRight, int successes, Failing failing) {
  const long before = liveAllocations();
  bool right = false;
  failAllocationsAfter(successes, failing);
  try {
    right = wentRight(true);
  } catch (const std::bad_alloc&) {
    right = true;
  }
  const bool failed = allowAllocations();
  EXPECT_TRUE(right) << "a wrong answer";
  EXPECT_EQ(liveAllocations(), before) << "memory is left behind";
  if (!right || liveAllocations() != before) return Outcome::kWrong;
  return failed ? Outcome::kBorne : Outcome::kUntouched;
}

}  // namespace

int failEachAllocationOf(const std::function<bool(bool failing)>& wentRight) {
  const int mask = setlogmask(LOG_MASK(LOG_EMERG));
  EXPECT_TRUE(wentRight(false))
      << "before any failure";  // libraries keep memory that they allocate at the first call
  int failures = 0;
  for (; failures < kMostAllocations; ++failures) {
    Outcome outcome = Outcome::kUntouched;
    for (const auto failing : {Failing::kOne, Failing::kAll}) {
      SCOPED_TRACE(testing::Message() << "allocation " << failures << " fails"
                                      << (failing == Failing::kAll ? ", and all after it" : ""));
      outcome = runFailing(wentRight, failures, failing);
      EXPECT_TRUE(wentRight(false)) << "a later call";
      if (outcome != Outcome::kBorne) break;
    }
    if (outcome != Outcome::kBorne) break;
  }
  EXPECT_LT(failures, kMostAllocations);
  setlogmask(mask);
  return failures;
}
