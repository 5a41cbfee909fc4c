// The bytes of one input. Each call takes bytes from the front. If too few bytes are left, the
// result is zero or empty, so every input is valid.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fuzz {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : mLeft(textOf(data, size)) {}

  bool empty() const { return mLeft.empty(); }

  std::uint8_t byte() { return mLeft.empty() ? 0 : static_cast<std::uint8_t>(bytes(1).front()); }

  /// A number below `limit`, which is 256 at most.
  std::size_t below(std::size_t limit) { return byte() % limit; }

  std::uint32_t number() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = (value << 8U) | byte();
    return value;
  }

  std::string_view bytes(std::size_t count) {
    const auto taken = mLeft.substr(0, count);
    mLeft.remove_prefix(taken.size());
    return taken;
  }

  /// The text before the next `end`. The `end` itself is skipped.
  std::string_view upTo(char end) {
    const auto taken = bytes(std::min(mLeft.find(end), mLeft.size()));
    bytes(1);
    return taken;
  }

  std::string_view rest() { return bytes(mLeft.size()); }

 private:
  std::string_view mLeft;
};

}  // namespace fuzz
