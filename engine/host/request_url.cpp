#include "engine/host/request_url.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <memory>

#include "engine/wire/protocol.h"

namespace pac_engine {

namespace {

using Url = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;
using CurlText = std::unique_ptr<char, decltype(&curl_free)>;

// Spaces are let through since callers hand over what people typed; a scheme need not be one that
// curl can fetch; dot segments are the server's business.
constexpr unsigned kParseFlags =
    CURLU_NON_SUPPORT_SCHEME | CURLU_NO_AUTHORITY | CURLU_PATH_AS_IS | CURLU_ALLOW_SPACE;

struct DefaultPort {
  std::string_view scheme;
  std::string_view port;
};
// Named here because curl knows those ports only of schemes that it was built with.
constexpr std::array<DefaultPort, 5> kDefaultPorts{
    {{"http", "80"}, {"https", "443"}, {"ws", "80"}, {"wss", "443"}, {"ftp", "21"}}};

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::optional<std::string> part(CURLU* url, CURLUPart which) {
  char* raw = nullptr;
  if (curl_url_get(url, which, &raw, 0) != CURLUE_OK) return std::nullopt;
  const CurlText text(raw, &curl_free);
  return std::string(raw);
}

bool set(CURLU* url, CURLUPart which, const char* value) {
  return curl_url_set(url, which, value, CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
}

bool lowerHost(CURLU* url) {
  auto host = part(url, CURLUPART_HOST);
  if (!host || host->empty()) return true;
  const auto given = *host;
  std::transform(host->begin(), host->end(), host->begin(), lower);
  if (*host == given) return true;
  // With another host curl forgets the zone of an IPv6 address, which has its case.
  const auto zone = part(url, CURLUPART_ZONEID);
  return set(url, CURLUPART_HOST, host->c_str()) &&
         (!zone || set(url, CURLUPART_ZONEID, zone->c_str()));
}

bool dropDefaultPort(CURLU* url, const std::string& scheme) {
  const auto port = part(url, CURLUPART_PORT);
  if (!port) return true;
  const bool isDefault =
      std::any_of(kDefaultPorts.begin(), kDefaultPorts.end(),
                  [&](const auto& entry) { return entry.scheme == scheme && entry.port == *port; });
  return !isDefault || set(url, CURLUPART_PORT, nullptr);
}

/// Whether only the server sees path and query of such a URL.
bool isEncrypted(std::string_view scheme) {
  return scheme == "https" || scheme == "wss";
}

/// Whether `given` ends in a question mark with nothing behind it, which curl takes for no query.
bool hasEmptyQuery(CURLU* url, const std::string& given) {
  const auto size = std::min(given.find('#'), given.size());
  return given[size - 1] == '?' && part(url, CURLUPART_QUERY).value_or("").empty();
}

std::optional<std::string> clean(CURLU* url, const std::string& given) {
  const auto scheme = part(url, CURLUPART_SCHEME);
  if (!scheme) return std::nullopt;
  const bool emptyQuery = !isEncrypted(*scheme) && hasEmptyQuery(url, given);
  bool done = true;
  for (const auto secret :
       {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS, CURLUPART_FRAGMENT}) {
    done = done && set(url, secret, nullptr);
  }
  if (isEncrypted(*scheme)) {
    done = done && set(url, CURLUPART_PATH, "/") && set(url, CURLUPART_QUERY, nullptr);
  }
  // Of "file:///" curl keeps no path, and would write "file://(nil)".
  if (*scheme == "file" && part(url, CURLUPART_PATH) == "/") {
    done = done && set(url, CURLUPART_PATH, "/");
  }
  if (!done || !lowerHost(url) || !dropDefaultPort(url, *scheme)) return std::nullopt;
  auto cleaned = part(url, CURLUPART_URL);
  if (cleaned && emptyQuery) *cleaned += '?';
  // The query of a file is one that curl writes nowhere.
  if (cleaned && *scheme == "file") {
    const auto query = part(url, CURLUPART_QUERY).value_or("");
    if (!query.empty()) *cleaned += '?' + query;
  }
  return cleaned;
}

// RFC 3986, 3.1: a letter, then letters, digits, "+", "-" and ".".
bool isScheme(const std::string& text) {
  const auto allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  };
  return !text.empty() && text.front() >= 'a' && text.front() <= 'z' &&
         std::all_of(text.begin(), text.end(), allowed);
}

// What cannot be taken apart may hold a password anywhere, so its scheme alone goes on.
std::optional<std::string> schemeAlone(const std::string& url) {
  std::string scheme = url.substr(0, url.find("://"));
  std::transform(scheme.begin(), scheme.end(), scheme.begin(), lower);
  if (!isScheme(scheme)) return std::nullopt;
  return scheme + ":///";
}

}  // namespace

std::optional<std::string> cleanedUrl(std::string_view url) {
  if (url.size() > kMaxUrlBytes) return std::nullopt;
  const std::string given(url);
  if (given.find("://") == std::string::npos) return given;
  // Asked first: curl also takes one slash for two, and would find another scheme in "a:/b://c".
  auto scheme = schemeAlone(given);
  if (!scheme) return std::nullopt;
  const Url parsed(curl_url(), &curl_url_cleanup);
  if (!parsed ||
      curl_url_set(parsed.get(), CURLUPART_URL, given.c_str(), kParseFlags) != CURLUE_OK) {
    return scheme;
  }
  auto cleaned = clean(parsed.get(), given);
  if (!cleaned) return scheme;
  if (cleaned->size() > kMaxUrlBytes) return std::nullopt;
  // curl looks for an IPv4 address in a host before it undoes its percent signs: "%39" is "9" now,
  // and 0.0.0.9 the next time, which comes while there are fewer and fewer of them.
  const auto signs = [](const std::string& text) {
    return std::count(text.begin(), text.end(), '%');
  };
  if (signs(*cleaned) < signs(given)) return cleanedUrl(*cleaned);
  return cleaned;
}

}  // namespace pac_engine
