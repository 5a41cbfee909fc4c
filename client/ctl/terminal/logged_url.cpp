#include "client/ctl/terminal/logged_url.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/ascii.h"

namespace client {

namespace {

constexpr std::string_view kBlanks = " \t\r";

/// Removes the next word from `text` and returns it; empty at the end. Quotation marks are blanks.
std::string_view nextWord(std::string_view& text) {
  constexpr std::string_view kBetween = " \t\r\"";
  text.remove_prefix(std::min(text.find_first_not_of(kBetween), text.size()));
  const auto word = text.substr(0, text.find_first_of(kBetween));
  text.remove_prefix(word.size());
  return word;
}

bool isMethod(std::string_view word) {
  return word.size() >= 3 && word.size() <= 16 &&
         std::all_of(word.begin(), word.end(),
                     [](char c) { return (c >= 'A' && c <= 'Z') || c == '-'; }) &&
         word.front() != '-';
}

/// Whether `word` begins with a scheme and "://".
bool isUrl(std::string_view word) {
  const auto end = word.find("://");
  return end != std::string_view::npos && end > 0 &&
         std::all_of(word.begin(), word.begin() + static_cast<std::ptrdiff_t>(end),
                     [](char c) { return base::lowerCase(c) >= 'a' && base::lowerCase(c) <= 'z'; });
}

/// The URL of "host:port". It has no port if the port is the default of the scheme.
std::string urlOf(std::string_view scheme, std::string_view place) {
  const std::string_view usual = scheme == "https" ? ":443" : ":80";
  if (place.ends_with(usual)) place.remove_suffix(usual.size());
  return std::string(scheme) + "://" + std::string(place) + "/";
}

std::string urlOfEither(std::string_view place) {
  return urlOf(place.ends_with(":443") ? "https" : "http", place);
}

/// The URL of a log line of proxymanager-relay. `rest` is the line after the program's name.
std::string urlOfRelay(std::string_view rest) {
  for (const std::string_view kind : {"request to ", "tunnel to ", "no way to "}) {
    if (!rest.starts_with(kind)) continue;
    rest.remove_prefix(kind.size());
    auto place = nextWord(rest);
    if (kind == "no way to " && place.ends_with(':')) place.remove_suffix(1);
    if (place.find(':') == std::string_view::npos) return {};
    if (kind == "no way to ") return urlOfEither(place);
    return urlOf(kind == "tunnel to " ? "https" : "http", place);
  }
  return {};
}

/// The destinations on the relay's page; empty if `log` is not that page.
std::vector<std::string> urlsOfPage(std::string_view log) {
  std::vector<std::string> urls;
  const auto page = nlohmann::json::parse(log, nullptr, false);
  if (!page.is_object()) return urls;
  const auto decisions = page.find("decisions");
  if (decisions == page.end() || !decisions->is_array()) return urls;
  for (const auto& decision : *decisions) {
    if (!decision.is_object()) continue;
    const auto place = decision.find("destination");
    if (place != decision.end() && place->is_string()) {
      urls.push_back(urlOfEither(place->get_ref<const std::string&>()));
    }
  }
  return urls;
}

}  // namespace

std::string urlOfLine(std::string_view line) {
  constexpr std::string_view kRelay = "relay: ";
  line = base::trimmed(line, kBlanks);
  if (line.empty() || line.front() == '#') return {};
  if (line.find_first_of(kBlanks) == std::string_view::npos) return std::string(line);
  // In a list of URLs, a remark or a number may follow the URL.
  if (const auto first = line.substr(0, line.find_first_of(kBlanks)); isUrl(first))
    return std::string(first);
  if (const auto relay = line.find(kRelay); relay != std::string_view::npos) {
    auto url = urlOfRelay(line.substr(relay + kRelay.size()));
    if (!url.empty()) return url;
  }
  bool isConnect = false;
  bool isBehindMethod = false;
  for (auto word = nextWord(line); !word.empty(); word = nextWord(line)) {
    if (isBehindMethod && word.find("://") != std::string_view::npos) return std::string(word);
    if (isConnect && word.find(':') != std::string_view::npos) {
      return urlOf("https", word);
    }
    isBehindMethod = isMethod(word);
    isConnect = word == "CONNECT";
  }
  return {};
}

std::vector<std::string> urlsOfLog(std::string_view log) {
  if (base::trimmed(log.substr(0, 64), " \t\r\n").starts_with('{')) {
    auto urls = urlsOfPage(log);
    if (!urls.empty()) return urls;
  }
  std::vector<std::string> urls;
  for (auto rest = log; !rest.empty();) {
    const auto end = rest.find('\n');
    auto url = urlOfLine(rest.substr(0, end));
    if (!url.empty()) urls.push_back(std::move(url));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return urls;
}

}  // namespace client
