// Tests the decoding of packets of the fetch process, which may send any bytes. If an accepted
// packet is encoded again, the result has the same bytes. The texts of the packet are short and
// printable.
#include <algorithm>
#include <string>

#include "fetcher/wire/packets.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

void checkText(const std::string& text, std::size_t bytes) {
  require(text.size() < bytes, "a text fits in its field");
  require(std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; }),
          "a text of the process is printable");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto bytes = fuzz::textOf(data, size);
  const auto result = fetcher::decodeResult(bytes);
  const auto ready = fetcher::decodeReady(bytes);
  const auto request = fetcher::decodeRequest(bytes);
  require(result.has_value() + ready.has_value() + request.has_value() <= 1,
          "a packet is of one kind");
  if (result) {
    checkText(result->scheme, fetcher::kSchemeBytes);
    checkText(result->error, fetcher::kErrorBytes);
    const auto again = fetcher::decodeResult(fetcher::encode(*result));
    require(again && again->success == result->success &&
                again->responseCode == result->responseCode && again->scheme == result->scheme &&
                again->error == result->error,
            "a result is read back");
  }
  if (ready) {
    checkText(ready->problem, fetcher::kErrorBytes);
    const auto again = fetcher::decodeReady(fetcher::encode(*ready));
    require(again && again->state == ready->state && again->limitsFiles == ready->limitsFiles &&
                again->problem == ready->problem,
            "a report is read back");
  }
  if (request) {
    require(request->seconds > 0 && request->bytes > 0 && request->redirects >= 0,
            "a request has limits");
    require(fetcher::encode(*request) == bytes, "a request is written as it came");
  }
  return 0;
}
