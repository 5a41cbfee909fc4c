#include "client/library/proxy_answer.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "base/ascii.h"

namespace client {

namespace {

struct Keyword {
  std::string_view word;
  ProxyKind kind;
};

constexpr std::array<Keyword, 6> kKeywords{{
    {"PROXY", ProxyKind::kHttp},
    {"HTTP", ProxyKind::kHttp},
    {"HTTPS", ProxyKind::kHttps},
    {"SOCKS", ProxyKind::kSocks5h},
    {"SOCKS4", ProxyKind::kSocks4},
    {"SOCKS5", ProxyKind::kSocks5h},
}};

constexpr std::array<Keyword, 7> kSchemes{{
    {"http", ProxyKind::kHttp},
    {"https", ProxyKind::kHttps},
    {"socks", ProxyKind::kSocks5h},
    {"socks4", ProxyKind::kSocks4},
    {"socks4a", ProxyKind::kSocks4a},
    {"socks5", ProxyKind::kSocks5},
    {"socks5h", ProxyKind::kSocks5h},
}};

constexpr std::size_t kMaxHost = 255;  // in bytes; no name or address is longer

ProxyKind kindOf(std::span<const Keyword> known, std::string_view word) {
  const auto found = std::find_if(known.begin(), known.end(), [&](auto& row) {
    return base::equalIgnoringCase(row.word, word);
  });
  return found == known.end() ? ProxyKind::kUnusable : found->kind;
}

std::uint16_t usualPort(ProxyKind kind) {
  switch (kind) {
    case ProxyKind::kHttp:
      return 80;
    case ProxyKind::kHttps:
      return 443;
    default:
      return 1080;
  }
}

bool isIpv6(const std::string& text) {
  in6_addr binary{};
  return inet_pton(AF_INET6, text.c_str(), &binary) == 1;
}

/// The bytes of the IPv6 address in `text`, with or without brackets; nothing if `text` is not an
/// IPv6 address.
std::optional<std::array<std::uint8_t, 16>> ipv6Of(std::string_view text) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
    text = text.substr(1, text.size() - 2);
  }
  std::array<std::uint8_t, 16> bytes{};
  if (inet_pton(AF_INET6, std::string(text).c_str(), bytes.data()) != 1) return std::nullopt;
  return bytes;
}

bool isSameHost(std::string_view a, std::string_view b) {
  const auto address = ipv6Of(a);
  return address ? address == ipv6Of(b) : base::equalIgnoringCase(a, b);
}

/// Whether `text` is a host name or an IPv4 address. Underscores are accepted in a name, because
/// some networks use them.
bool isHost(std::string_view text) {
  const auto mayStand = [](char c) {
    return base::isDigit(c) || base::isLetter(c) || c == '-' || c == '.' || c == '_';
  };
  return !text.empty() && text.size() <= kMaxHost && text.front() != '-' && text.front() != '.' &&
         std::all_of(text.begin(), text.end(), mayStand);
}

std::optional<std::uint16_t> portOf(std::string_view text) {
  unsigned port = 0;
  const auto end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || rest != end || port == 0 || port > 0xFFFF) return std::nullopt;
  return static_cast<std::uint16_t>(port);
}

/// Sets host and port from "host", "host:port", "[address]", "[address]:port" or a bare IPv6
/// address. @return false if `text` has none of these forms
bool setAddress(std::string_view text, ProxyEntry& entry) {
  if (text.find('[') != 0 && isIpv6(std::string(text))) {
    entry.host = '[' + std::string(text) + ']';
    entry.port = usualPort(entry.kind);
    return true;
  }
  std::string_view after;
  if (text.find('[') == 0) {
    const auto bracket = text.find(']');
    if (bracket == std::string_view::npos) return false;
    if (!isIpv6(std::string(text.substr(1, bracket - 1)))) return false;
    entry.host = text.substr(0, bracket + 1);
    after = text.substr(bracket + 1);
  } else {
    const auto colon = std::min(text.find(':'), text.size());
    if (!isHost(text.substr(0, colon))) return false;
    entry.host = text.substr(0, colon);
    after = text.substr(colon);
  }
  if (after.empty()) {
    entry.port = usualPort(entry.kind);
    return true;
  }
  const auto port = after.front() == ':' ? portOf(after.substr(1)) : std::nullopt;
  entry.port = port.value_or(0);
  return port.has_value();
}

/// Whether `text` is accepted before the "@" of a URL. The accepted characters do not end a word in
/// a shell, and do not control a terminal. Other mistakes are not found here: the proxy reports
/// them.
bool areCredentials(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return c > ' ' && c < '\x7F' &&
           std::string_view("/?#@\"<>\\^`{|}'").find(c) == std::string_view::npos;
  });
}

ProxyEntry unusable(std::string_view text) {
  return {ProxyKind::kUnusable, std::string(text), {}, {}, 0};
}

}  // namespace

ProxyEntry parseEntry(std::string_view text) {
  const auto whole = base::trimmed(text);
  if (base::equalIgnoringCase(whole, "DIRECT"))
    return {ProxyKind::kDirect, std::string(text), {}, {}, 0};
  const auto blank = whole.find_first_of(base::kBlanks);
  ProxyEntry entry;
  entry.kind = kindOf(kKeywords, whole.substr(0, blank));
  entry.text = text;
  if (entry.kind == ProxyKind::kUnusable || blank == std::string_view::npos ||
      !setAddress(base::trimmed(whole.substr(blank)), entry)) {
    return unusable(text);
  }
  return entry;
}

std::vector<ProxyEntry> parseEntries(std::string_view text) {
  std::vector<ProxyEntry> entries;
  for (;;) {
    const auto semicolon = text.find(';');
    const auto piece = base::trimmed(text.substr(0, semicolon));
    if (!piece.empty()) entries.push_back(parseEntry(piece));
    if (semicolon == std::string_view::npos) return entries;
    text.remove_prefix(semicolon + 1);
  }
}

ProxyEntry parseManualProxy(std::string_view text) {
  constexpr std::string_view kMark = "://";
  auto rest = base::trimmed(text);
  if (rest.empty()) return {ProxyKind::kDirect, std::string(text), {}, {}, 0};
  ProxyEntry entry;
  entry.kind = ProxyKind::kHttp;
  entry.text = text;
  if (const auto mark = rest.find(kMark); mark != std::string_view::npos) {
    entry.kind = kindOf(kSchemes, rest.substr(0, mark));
    rest.remove_prefix(mark + kMark.size());
  }
  if (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
  if (const auto at = rest.rfind('@'); at != std::string_view::npos) {
    entry.credentials = rest.substr(0, at);
    rest.remove_prefix(at + 1);
  }
  if (entry.kind == ProxyKind::kUnusable || !areCredentials(entry.credentials) ||
      !setAddress(rest, entry)) {
    return unusable(text);
  }
  return entry;
}

ProxyAnswer localAnswer() {
  return {"local", {parseEntry("DIRECT")}};
}

bool isMode(std::string_view text) {
  return text == "off" || text == "manual" || text == "pacurl" || text == "wpad";
}

std::optional<ProxyAnswer> parseAnswer(std::span<const std::string> texts) {
  if (texts.empty()) return std::nullopt;
  ProxyAnswer answer;
  answer.mode = texts.front();
  const bool oneProxy = answer.mode == "off" || answer.mode == "manual";
  if (oneProxy && texts.size() == 1) return std::nullopt;
  for (const auto& text : texts.subspan(1, std::min(texts.size() - 1, kMaxEntries))) {
    answer.entries.push_back(oneProxy ? parseManualProxy(text) : parseEntry(text));
  }
  return answer;
}

std::string credentialsOf(std::string_view userName, std::string_view password) {
  std::string credentials;
  const auto append = [&](std::string_view text) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (base::isLetter(c) || base::isDigit(c) ||
          std::string_view("-._~").find(c) != std::string_view::npos) {
        credentials += c;
      } else {
        credentials += {'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
      }
    }
  };
  append(userName);
  if (password.empty()) return credentials;
  credentials += ':';
  append(password);
  return credentials;
}

bool takesCredentials(const ProxyAnswer& answer, const ProxyEntry& entry,
                      std::span<const std::string> hosts) {
  if (entry.kind == ProxyKind::kDirect || entry.kind == ProxyKind::kUnusable) return false;
  if (!entry.credentials.empty()) return false;
  return answer.mode == "manual" ||
         std::any_of(hosts.begin(), hosts.end(),
                     [&](const std::string& host) { return isSameHost(host, entry.host); });
}

bool addCredentials(ProxyAnswer& answer, const Configuration& configuration,
                    std::span<const std::string> hosts) {
  if (answer.mode != configuration.mode) return false;
  const bool isManual = answer.mode == "manual";
  if (isManual && (answer.entries.empty() || answer.entries.front().text != configuration.proxyurl))
    return false;
  if (configuration.userName.empty()) return true;
  const auto credentials = credentialsOf(configuration.userName, configuration.password);
  for (auto& entry : answer.entries) {
    if (takesCredentials(answer, entry, hosts)) entry.credentials = credentials;
  }
  return true;
}

std::string proxyUrl(const ProxyEntry& entry) {
  if (entry.kind == ProxyKind::kDirect || entry.kind == ProxyKind::kUnusable) return {};
  std::string url(kindName(entry.kind));
  url += "://";
  if (!entry.credentials.empty()) url += entry.credentials + '@';
  return url + entry.host + ':' + std::to_string(entry.port);
}

std::string_view kindName(ProxyKind kind) {
  switch (kind) {
    case ProxyKind::kDirect:
      return "direct";
    case ProxyKind::kHttp:
      return "http";
    case ProxyKind::kHttps:
      return "https";
    case ProxyKind::kSocks4:
      return "socks4";
    case ProxyKind::kSocks4a:
      return "socks4a";
    case ProxyKind::kSocks5:
      return "socks5";
    case ProxyKind::kSocks5h:
      return "socks5h";
    case ProxyKind::kUnusable:
      break;
  }
  return "unusable";
}

const ProxyEntry* firstUsable(std::span<const ProxyEntry> entries) {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [](auto& entry) { return entry.kind != ProxyKind::kUnusable; });
  return found == entries.end() ? nullptr : &*found;
}

}  // namespace client
