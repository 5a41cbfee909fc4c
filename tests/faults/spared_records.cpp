// By its contract, string2Char does not check whether its allocation succeeds. So in these tests,
// its allocations never fail. The linker replaces the calls of string2Char by calls of __wrap_....
#include <cstdint>

#include "tests/support/failing_allocator.h"

extern "C" {
char* __real__Z11string2CharPKci(const char* data, std::int32_t length);

char* __wrap__Z11string2CharPKci(const char* data, std::int32_t length) {
  const SparedAllocations spared;
  return __real__Z11string2CharPKci(data, length);
}
}
