#include "engine/worker/shell_expression.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace pac_worker {
namespace {

template <typename Unit>
bool isLineEnd(Unit unit) {
  if (unit == Unit('\n') || unit == Unit('\r')) return true;
  if constexpr (sizeof(Unit) > 1) return unit == 0x2028U || unit == 0x2029U;
  return false;
}

// Each star first matches as few characters as possible. On a mismatch, only the last star found so
// far is tried with more characters. Longer matches of earlier stars need not be tried: the part
// between two stars already matches as far left as possible. The last star can match all characters
// that such a longer match would skip. Line ends do not change this, because no star can match a
// line end.
template <typename Unit>
bool matches(std::basic_string_view<Unit> text, std::basic_string_view<Unit> expression) {
  constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::size_t at = 0;
  std::size_t in = 0;
  std::size_t afterStar = kNone;
  std::size_t starEnd = 0;
  while (at < text.size() || in < expression.size()) {
    if (in < expression.size() && expression[in] == Unit('*')) {
      afterStar = ++in;
      starEnd = at;
      continue;
    }
    if (at < text.size() && in < expression.size() &&
        (expression[in] == Unit('?') ? !isLineEnd(text[at]) : expression[in] == text[at])) {
      ++at;
      ++in;
      continue;
    }
    if (afterStar == kNone || starEnd == text.size() || isLineEnd(text[starEnd])) return false;
    at = ++starEnd;
    in = afterStar;
  }
  return true;
}

}  // namespace

// A table is used for speed: it is read for each character of each rule of a script.
bool isPlainShellExpression(std::string_view expression) {
  static constexpr auto kSpecial = [] {
    std::array<bool, 256> special{};
    for (const char c : std::string_view("+[](){}\\^$|"))
      special[static_cast<unsigned char>(c)] = true;
    return special;
  }();
  return std::none_of(expression.begin(), expression.end(),
                      [](char c) { return kSpecial[static_cast<unsigned char>(c)]; });
}

bool matchesShellExpression(std::u16string_view text, std::u16string_view expression) {
  return matches(text, expression);
}

bool matchesShellExpression(std::string_view text, std::string_view expression) {
  return matches(text, expression);
}

}  // namespace pac_worker
