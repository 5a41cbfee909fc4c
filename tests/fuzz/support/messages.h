// Messages between library and worker, made from an input's bytes. The messages are always within
// the limits, so the decoders accept them.
#pragma once

#include <string>

#include "engine/wire/protocol.h"
#include "tests/fuzz/support/input.h"

namespace fuzz {

/// A text of 255 bytes at most, or sometimes the longest allowed text.
inline std::string_view someText(Input& input, std::size_t limit) {
  static const std::string longest(pac_engine::kMaxResultBytes, 'x');
  const std::size_t size = input.byte();
  if (size == 255) return std::string_view(longest).substr(0, limit);
  return input.bytes(std::min(size, limit));
}

inline pac_engine::AddressFamily someFamily(Input& input) {
  using pac_engine::AddressFamily;
  return input.below(2) == 0 ? AddressFamily::kIpv4 : AddressFamily::kAny;
}

inline pac_engine::FromLibrary messageOfLibrary(Input& input) {
  using namespace pac_engine;
  switch (input.below(3)) {
    case 0: {
      Start start{input.number(), std::nullopt};
      if (input.below(2) == 1) start.clock = input.number();
      return start;
    }
    case 1: {
      const auto serial = std::uint32_t{input.byte()};
      const auto url = someText(input, kMaxUrlBytes);
      return Evaluate{serial, url, someText(input, kMaxHostBytes)};
    }
    default: {
      Addresses addresses;
      for (auto left = input.below(kMaxAddresses + 1); left > 0; --left)
        addresses.texts.emplace_back(someText(input, kMaxAddressBytes));
      return addresses;
    }
  }
}

/// The texts of the message are views of the input.
inline pac_engine::FromWorker messageOfWorker(Input& input) {
  using namespace pac_engine;
  const auto kind = input.below(7);
  const auto number = std::uint32_t{input.byte()};
  switch (kind) {
    case 0:
      return Ready{};
    case 1:
      return Refused{number, someText(input, kMaxProblemBytes)};
    case 2: {
      const auto family = someFamily(input);
      return Resolve{family, someText(input, kMaxNameBytes)};
    }
    case 3:
      return OwnAddresses{someFamily(input)};
    case 4:
      return Alert{someText(input, kMaxAlertBytes)};
    case 5: {
      auto result = someText(input, kMaxResultBytes);
      // Every answer is ASCII.
      const auto end =
          std::find_if(result.begin(), result.end(), [](unsigned char c) { return c >= 0x80; });
      result = result.substr(0, static_cast<std::size_t>(end - result.begin()));
      return Answer{number, result};
    }
    default: {
      const auto line = std::uint32_t{input.byte()};
      return NoAnswer{number, line, someText(input, kMaxProblemBytes)};
    }
  }
}

}  // namespace fuzz
