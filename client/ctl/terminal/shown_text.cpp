#include "client/ctl/terminal/shown_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <optional>
#include <utility>

#include "client/ctl/terminal/url_parts.h"

namespace client {

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

/// The position of the password in a URL.
struct Span {
  std::size_t begin;
  std::size_t end;
};

std::optional<Span> passwordOf(std::string_view url) {
  // Programs accept more than two slashes, and also slashes without a scheme.
  const auto begin = std::min(url.find_first_not_of('/', authorityBegin(url)), url.size());
  const auto colon = url.find(':', begin);
  // A password never begins after the authority or in an IPv6 address.
  if (colon == std::string_view::npos || colon > url.find_first_of("/?#[", begin)) {
    return std::nullopt;
  }
  // A "/" in a password breaks the rules of URLs, but people write such passwords. So the last "@"
  // counts.
  const auto at = url.rfind('@');
  if (at == std::string_view::npos || at < colon) return std::nullopt;
  return Span{colon + 1, at};
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
  // A time_t with 32 bits ends in January 2038.
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

}  // namespace client
