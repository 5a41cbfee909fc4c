#include "settings/manual_script.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <utility>

#include "client/library/proxy_answer.h"

namespace settings {

namespace {

using Scheme = ManualServer::Scheme;

constexpr std::array<std::pair<std::string_view, Scheme>, 6> kSchemes{
    {{"http", Scheme::kHttp},
     {"https", Scheme::kHttps},
     {"ftp", Scheme::kFtp},
     {"socks", Scheme::kSocks},
     {"socks4", Scheme::kSocks4},
     {"socks5", Scheme::kSocks5}}};

bool isSocks(Scheme scheme) {
  return scheme == Scheme::kSocks || scheme == Scheme::kSocks4 || scheme == Scheme::kSocks5;
}

std::optional<Scheme> schemeOf(std::string_view text) {
  const auto found = std::find_if(kSchemes.begin(), kSchemes.end(),
                                  [&](const auto& entry) { return entry.first == text; });
  return found == kSchemes.end() ? std::nullopt : std::optional(found->second);
}

/// The scheme before "://", and the remaining text. Without "://", there is no scheme.
std::pair<std::string_view, std::string_view> splitScheme(std::string_view text) {
  const auto at = text.find("://");
  if (at == std::string_view::npos) return {{}, text};
  return {text.substr(0, at), text.substr(at + 3)};
}

/// Parses "[user:password@]host[:port][/]" with the client library's parser for manual proxies.
std::optional<ManualServer> parseServer(Scheme scheme, std::string_view rest) {
  if (const auto at = rest.rfind('@'); at != std::string_view::npos) rest.remove_prefix(at + 1);
  const std::string url = std::string(isSocks(scheme) ? "socks5://" : "http://").append(rest);
  const auto entry = client::parseManualProxy(url);
  if (entry.kind == client::ProxyKind::kUnusable || entry.host.empty()) return std::nullopt;
  return ManualServer{scheme, entry.host, entry.port};
}

std::string entryText(const ManualServer& server) {
  return (isSocks(server.scheme) ? "SOCKS " : "PROXY ") + server.host + ":" +
         std::to_string(server.port);
}

/// The servers in the order for URLs with the scheme `own`, as the text of an answer.
std::string answerFor(std::span<const ManualServer> servers, Scheme own) {
  std::vector<std::string> entries;
  const auto append = [&](auto matches) {
    for (const auto& server : servers) {
      if (!matches(server)) continue;
      std::string text = entryText(server);
      if (std::find(entries.begin(), entries.end(), text) == entries.end()) {
        entries.push_back(std::move(text));
      }
    }
  };
  for (const Scheme scheme : {own, Scheme::kAny, Scheme::kHttp, Scheme::kHttps, Scheme::kFtp}) {
    append([&](const ManualServer& server) { return server.scheme == scheme; });
  }
  append([](const ManualServer& server) { return isSocks(server.scheme); });
  std::string answer;
  for (const auto& entry : entries) answer += (answer.empty() ? "" : "; ") + entry;
  return answer;
}

/// A JavaScript string literal of any bytes. Each byte that is not ASCII is escaped as one
/// character. Such a character matches no host, because the host of a question has only ASCII
/// characters.
std::string literal(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isPlain = (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
                         (byte >= 'A' && byte <= 'Z') || c == '.' || c == '-' || c == ':';
    if (isPlain) {
      quoted += c;
    } else {
      quoted += "\\x";
      quoted += kDigits[byte >> 4U];
      quoted += kDigits[byte & 15U];
    }
  }
  return quoted + "\"";
}

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return result;
}

/// The condition under which `rule` excludes a host. Returns nothing if the rule is empty.
std::optional<std::string> hostCondition(std::string_view rule) {
  const bool open = rule.starts_with('*');
  if (open) rule.remove_prefix(1);
  const bool openEnd = rule.ends_with('*');
  if (openEnd) rule.remove_suffix(1);
  // The script compares IPv6 addresses without brackets.
  if (rule.starts_with('[')) rule.remove_prefix(1);
  if (rule.ends_with(']')) rule.remove_suffix(1);
  if (rule.empty()) return std::nullopt;
  const std::string word = literal(lower(rule));
  if (open && openEnd) return "h.indexOf(" + word + ") >= 0";
  if (openEnd) return "h.lastIndexOf(" + word + ", 0) === 0";
  return "h.slice(-" + std::to_string(rule.size()) + ") === " + word;
}

std::optional<std::string> condition(std::string_view exclude) {
  const auto [scheme, rule] = splitScheme(exclude);
  const auto host = hostCondition(rule);
  if (scheme.empty()) return host;
  const std::string ofScheme = "s === " + literal(lower(scheme));
  if (rule.empty()) return ofScheme;
  if (!host) return std::nullopt;
  return ofScheme + " && " + *host;
}

}  // namespace

std::vector<ManualServer> parseServers(const std::vector<std::string>& texts) {
  std::vector<ManualServer> servers;
  for (const auto& text : texts) {
    const auto [name, rest] = splitScheme(text);
    const auto scheme = name.empty() ? std::optional(Scheme::kAny) : schemeOf(lower(name));
    if (!scheme) return {};
    if (auto server = parseServer(*scheme, rest)) servers.push_back(std::move(*server));
  }
  return servers;
}

std::string manualProxyUrl(const ManualServer& server) {
  const char* scheme = "http";
  if (server.scheme == Scheme::kSocks || server.scheme == Scheme::kSocks5) scheme = "socks5h";
  if (server.scheme == Scheme::kSocks4) scheme = "socks4a";
  return std::string(scheme) + "://" + server.host + ":" + std::to_string(server.port);
}

std::string entryOfManualUrl(std::string_view url) {
  const auto entry = client::parseManualProxy(url);
  const std::string address = entry.host + ":" + std::to_string(entry.port);
  switch (entry.kind) {
    case client::ProxyKind::kHttp:
    case client::ProxyKind::kHttps:
      return "PROXY " + address;
    case client::ProxyKind::kSocks4:
    case client::ProxyKind::kSocks4a:
    case client::ProxyKind::kSocks5:
    case client::ProxyKind::kSocks5h:
      return "SOCKS " + address;
    case client::ProxyKind::kDirect:
    case client::ProxyKind::kUnusable:
      break;
  }
  return {};
}

std::string manualScript(const std::vector<ManualServer>& servers,
                         const std::vector<std::string>& excludes) {
  std::string script =
      "// Made by proxymanager-settings of what the network manager sets.\n"
      "function FindProxyForURL(url, host) {\n"
      "  var s = url.slice(0, url.indexOf(\":\")).toLowerCase();\n"
      // For "http://[2001:db8::1]/", the daemon passes the host "[2001".
      "  var m = /^[^:]*:\\/\\/(?:[^\\/?#]*@)?\\[([^\\]]*)\\]/.exec(url);\n"
      "  var h = (m ? m[1] : host).toLowerCase();\n";
  for (const auto& exclude : excludes) {
    if (const auto excluded = condition(exclude)) {
      script += "  if (" + *excluded + ") return \"DIRECT\";\n";
    }
  }
  for (const auto& [name, scheme] : kSchemes) {
    if (isSocks(scheme)) continue;
    script += "  if (s === \"" + std::string(name) + "\") return \"" + answerFor(servers, scheme) +
              "\";\n";
  }
  script += "  return \"" + answerFor(servers, Scheme::kAny) + "\";\n}\n";
  return script;
}

}  // namespace settings
