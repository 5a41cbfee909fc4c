#include "client/shown_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <optional>
#include <utility>

#include "client/url_parts.h"

namespace client {

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

/// Where the password begins and ends.
struct Span {
  std::size_t begin;
  std::size_t end;
};

std::optional<Span> passwordOf(std::string_view url) {
  // Programs are content with more slashes, or with these alone.
  const auto begin = std::min(url.find_first_not_of('/', authorityBegin(url)), url.size());
  const auto colon = url.find(':', begin);
  // No password begins behind the authority, or in an IPv6 address.
  if (colon == std::string_view::npos || colon > url.find_first_of("/?#[", begin)) {
    return std::nullopt;
  }
  // A password with a "/" in it is against the rules, and written all the same.
  const auto at = url.rfind('@');
  if (at == std::string_view::npos || at < colon) return std::nullopt;
  return Span{colon + 1, at};
}

/// Bytes that follow `first` in its character, and the least code point that needs them.
std::optional<std::pair<int, std::uint32_t>> sequence(unsigned char first) {
  if (first < 0x80) return std::pair{0, 0U};
  if (first >= 0xC2 && first < 0xE0) return std::pair{1, 0x80U};
  if (first >= 0xE0 && first < 0xF0) return std::pair{2, 0x800U};
  if (first >= 0xF0 && first < 0xF5) return std::pair{3, 0x10000U};
  return std::nullopt;
}

}  // namespace

std::string withoutPassword(std::string_view url) {
  const auto span = passwordOf(url);
  if (!span) return std::string(url);
  return std::string(url.substr(0, span->begin)) + std::string(kHidden) +
         std::string(url.substr(span->end));
}

bool hasPassword(std::string_view url) {
  return passwordOf(url).has_value();
}

std::string shownPassword(std::string_view password, bool show) {
  return std::string(show || password.empty() ? password : kHidden);
}

std::string shownAge(std::int64_t seconds) {
  constexpr std::int64_t kMinute = 60;
  constexpr std::int64_t kHour = 60 * kMinute;
  constexpr std::int64_t kDay = 24 * kHour;
  if (seconds < 0) return "0 s";
  if (seconds < 2 * kMinute) return std::to_string(seconds) + " s";
  if (seconds < 2 * kHour) return std::to_string(seconds / kMinute) + " min";
  if (seconds < 2 * kDay) return std::to_string(seconds / kHour) + " h";
  return std::to_string(seconds / kDay) + " days";
}

std::string shownTime(std::int64_t microseconds, bool milliseconds) {
  auto seconds = microseconds / kMicrosecondsPerSecond;
  auto fraction = microseconds % kMicrosecondsPerSecond;
  if (fraction < 0) {
    fraction += kMicrosecondsPerSecond;
    --seconds;
  }
  // Where time_t has 32 bits, it ends in January 2038.
  if (!std::in_range<std::time_t>(seconds)) return std::to_string(seconds);
  const auto time = static_cast<std::time_t>(seconds);
  std::tm fields{};
  if (localtime_r(&time, &fields) == nullptr) return std::to_string(seconds);
  std::array<char, 64> text{};
  std::string shown(text.data(), strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &fields));
  if (milliseconds) {
    snprintf(text.data(), text.size(), ".%03d", static_cast<int>(fraction / 1000));
    shown += text.data();
  }
  const auto offset = fields.tm_gmtoff / 60;
  const auto minutes = offset < 0 ? -offset : offset;
  snprintf(text.data(), text.size(), "%c%02ld:%02ld", offset < 0 ? '-' : '+', minutes / 60,
           minutes % 60);
  return shown + text.data();
}

bool isBusText(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto first = static_cast<unsigned char>(text[i]);
    const auto rest = sequence(first);
    if (first == 0 || !rest) return false;
    std::uint32_t code = rest->first == 0 ? first : first & (0x3FU >> rest->first);
    for (int n = 0; n < rest->first; ++n) {
      if (++i == text.size()) return false;
      const auto next = static_cast<unsigned char>(text[i]);
      if ((next & 0xC0U) != 0x80U) return false;
      code = (code << 6U) | (next & 0x3FU);
    }
    if (code < rest->second || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return false;
  }
  return true;
}

}  // namespace client
