// The questions about the device that the helpers of a script may ask.
//
// The worker has no network and no files, and tests need a fixed clock. So a helper gets all facts
// about the device through this one interface. In the worker, the library answers over the socket.
// In tests, an object of the test answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/wire/address_family.h"

namespace pac_worker {

using pac_engine::AddressFamily;

class PacEnvironment {
 public:
  PacEnvironment() = default;
  PacEnvironment(const PacEnvironment&) = delete;
  PacEnvironment& operator=(const PacEnvironment&) = delete;
  virtual ~PacEnvironment() = default;

  /// The addresses of `name` as texts, in order of preference. `name` is never an address literal;
  /// an international name is in UTF-8. Empty if the name does not resolve, if its lookup takes too
  /// long, or if the evaluation has already looked up the maximum number of names. Blocks 2 s at
  /// most.
  virtual std::vector<std::string> resolve(std::string_view name, AddressFamily family) = 0;

  /// For kIpv4, the address with which the device reaches the outside. For kAny, all usable
  /// addresses of the device. Empty if there is none.
  virtual std::vector<std::string> ownAddresses(AddressFamily family) = 0;

  /// The time that the script sees instead of the clock's time, in seconds since
  /// 1970-01-01T00:00:00Z; no value if the script sees the clock's time.
  virtual std::optional<std::int64_t> stoppedClock() = 0;

  /// Gets the text of alert(). The text may have any length and any bytes.
  virtual void alert(std::string_view text) = 0;
};

}  // namespace pac_worker
