#include "relay/destination.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "base/ascii.h"

namespace relay {

namespace {

bool isName(std::string_view host) {
  return !host.empty() && host.size() <= kMaxHostName &&
         std::all_of(host.begin(), host.end(), [](char c) {
           return base::isLetter(c) || base::isDigit(c) || c == '-' || c == '.' || c == '_' ||
                  c == '~';
         });
}

bool isIpv6Address(const std::string& text) {
  in6_addr address{};
  return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool readPort(std::string_view text, std::uint16_t& port) {
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return !text.empty() && base::isDigit(text.front()) && error == std::errc() &&
         rest == text.data() + text.size() && port != 0;
}

}  // namespace

std::string Destination::text() const {
  return hostField(0);
}

std::string Destination::hostField(std::uint16_t usual) const {
  std::string text = isIpv6() ? "[" + host + "]" : host;
  if (port != usual) text += ":" + std::to_string(port);
  return text;
}

std::optional<Destination> readAuthority(std::string_view text, std::uint16_t usual) {
  Destination read{{}, usual};
  std::string_view behind;
  if (text.starts_with('[')) {
    const auto end = text.find(']');
    if (end == std::string_view::npos) return std::nullopt;
    read.host = std::string(text.substr(1, end - 1));
    if (!isIpv6Address(read.host)) return std::nullopt;
    behind = text.substr(end + 1);
  } else {
    const auto end = std::min(text.find(':'), text.size());
    read.host = base::lowerCase(text.substr(0, end));
    if (!isName(read.host)) return std::nullopt;
    behind = text.substr(end);
  }
  // "host:" is valid in a URL and means the default port.
  if (behind == ":" && usual != 0) return read;
  if (!behind.empty() && (behind.front() != ':' || !readPort(behind.substr(1), read.port))) {
    return std::nullopt;
  }
  return read.port != 0 ? std::optional(read) : std::nullopt;
}

std::optional<HttpTarget> readHttpTarget(std::string_view target) {
  constexpr std::string_view kScheme = "http://";
  if (!base::equalIgnoringCase(target.substr(0, kScheme.size()), kScheme)) return std::nullopt;
  if (target.find('#') != std::string_view::npos) return std::nullopt;
  target.remove_prefix(kScheme.size());
  const auto end = std::min(target.find_first_of("/?"), target.size());
  auto destination = readAuthority(target.substr(0, end), 80);
  if (!destination) return std::nullopt;
  return HttpTarget{*std::move(destination), target.substr(end)};
}

}  // namespace relay
