#include "client/ctl/terminal/url_parts.h"

#include <algorithm>

#include "base/ascii.h"
#include "client/library/asked_url.h"

namespace client {

namespace {

bool mayStandInScheme(char c) {
  return base::isLetter(c) || base::isDigit(c) || c == '+' || c == '.' || c == '-';
}

}  // namespace

std::string_view schemeOf(std::string_view url) {
  const auto colon = url.find(':');
  if (colon == std::string_view::npos) return {};
  const auto scheme = url.substr(0, colon);
  const bool isOne = !scheme.empty() && base::isLetter(scheme.front()) &&
                     std::all_of(scheme.begin(), scheme.end(), mayStandInScheme);
  return isOne ? scheme : std::string_view();
}

std::size_t authorityBegin(std::string_view url) {
  constexpr std::string_view kMark = "://";
  const auto scheme = schemeOf(url);
  const bool isMarked = !scheme.empty() && url.substr(scheme.size()).starts_with(kMark);
  return isMarked ? scheme.size() + kMark.size() : 0;
}

std::string canonicalOrGiven(const std::string& url) {
  return askedUrl(url).value_or(url);
}

std::string hostOf(std::string_view url) {
  auto authority = url.substr(authorityBegin(url));
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  if (authority.starts_with('[')) {
    return base::lowerCase(authority.substr(1, authority.find(']') - 1));
  }
  const auto colon = authority.find(':');
  // A host with two colons is an IPv6 address without its brackets.
  const bool isBareAddress = colon != authority.rfind(':');
  return base::lowerCase(isBareAddress ? authority : authority.substr(0, colon));
}

}  // namespace client
