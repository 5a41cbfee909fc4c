#include "client/ctl/commands/url_parts.h"

#include <algorithm>

namespace client {

namespace {

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool mayStandInScheme(char c) {
  return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '.' || c == '-';
}

}  // namespace

std::string inLowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower;
}

std::string_view schemeOf(std::string_view url) {
  const auto colon = url.find(':');
  if (colon == std::string_view::npos) return {};
  const auto scheme = url.substr(0, colon);
  const bool isOne = !scheme.empty() && isLetter(scheme.front()) &&
                     std::all_of(scheme.begin(), scheme.end(), mayStandInScheme);
  return isOne ? scheme : std::string_view();
}

std::size_t authorityBegin(std::string_view url) {
  constexpr std::string_view kMark = "://";
  const auto scheme = schemeOf(url);
  const bool isMarked = !scheme.empty() && url.substr(scheme.size()).starts_with(kMark);
  return isMarked ? scheme.size() + kMark.size() : 0;
}

std::string hostOf(std::string_view url) {
  auto authority = url.substr(authorityBegin(url));
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  if (authority.starts_with('[')) {
    return inLowerCase(authority.substr(1, authority.find(']') - 1));
  }
  const auto colon = authority.find(':');
  // Two of them are an IPv6 address that lacks its brackets.
  const bool isBareAddress = colon != authority.rfind(':');
  return inLowerCase(isBareAddress ? authority : authority.substr(0, colon));
}

}  // namespace client
