// The records' string2Char does not look whether it got memory: that is its contract. So it always
// gets some here. The linker sends its callers through __wrap_.
#include <cstdint>

#include "tests/support/failing_allocator.h"

extern "C" {
char* __real__Z11string2CharPKci(const char* data, std::int32_t length);

char* __wrap__Z11string2CharPKci(const char* data, std::int32_t length) {
  const SparedAllocations spared;
  return __real__Z11string2CharPKci(data, length);
}
}
