// A target whose property is false for some inputs. It tests that a replay reports this.
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::require(!fuzz::textOf(data, size).starts_with('#'), "an input is no comment");
  return 0;
}
