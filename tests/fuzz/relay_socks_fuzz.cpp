// Tests the reading of SOCKS requests. The reader ends for any input. If it accepts a destination,
// the text of the destination is parsed to the same destination.
#include <string>

#include "relay/socks.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace relay;

namespace {

void check(const SocksStep& step, std::string_view input, bool isRequest) {
  require(step.taken <= input.size(), "no more is taken than there is");
  require(step.state != SocksState::kMore || input.size() <= kMaxSocksRequest,
          "a request has an end");
  if (step.state != SocksState::kDone || !isRequest) return;
  require(step.taken <= kMaxSocksRequest, "a request has a longest length");
  require(readAuthority(step.destination.text(), 0) == step.destination,
          "a destination is read again");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  check(readSocks5Greeting(input), input, false);
  check(readSocks5Request(input), input, true);
  check(readSocks4Request(input), input, true);
  return 0;
}
