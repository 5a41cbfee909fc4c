#include "settings/settings_text.h"

#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <map>
#include <utility>

#include "client/library/proxy_answer.h"

namespace settings {

namespace {

bool isPrintableAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](unsigned char byte) { return byte > 0x20 && byte < 0x7F; });
}

/// Takes the text of one key; returns what is wrong with it, or an empty text.
using Setter = std::function<std::string(FileSettings&, const std::string&)>;

template <typename Value>
Setter choice(std::optional<Value> FileSettings::*member,
              std::vector<std::pair<std::string, Value>> values) {
  return [member, values = std::move(values)](FileSettings& settings, const std::string& text) {
    std::string known;
    for (const auto& [name, value] : values) {
      if (text == name) {
        settings.*member = value;
        return std::string();
      }
      known += (known.empty() ? "\"" : ", \"") + name + "\"";
    }
    return "must be one of " + known;
  };
}

using TextProblem = std::string (*)(std::string_view);

Setter text(std::optional<std::string> FileSettings::*member, TextProblem problemOf) {
  return [member, problemOf](FileSettings& settings, const std::string& value) {
    std::string problem = problemOf(value);
    if (problem.empty()) settings.*member = value;
    return problem;
  };
}

std::string noProblem(std::string_view) {
  return {};
}

std::string pathProblem(std::string_view path) {
  return path.starts_with('/') ? "" : "must be an absolute path";
}

std::string credentialProblem(std::string_view name) {
  const bool isName = !name.empty() && name.find('/') == std::string_view::npos && name[0] != '.';
  return isName ? "" : "must be the name of a credential, without a slash";
}

std::string setRefresh(FileSettings& settings, const std::string& value) {
  const auto refresh = parseRefresh(value);
  if (!refresh) return "must be 0 or a time from 1m to 365d, such as \"6h\"";
  settings.refresh = refresh;
  return {};
}

const std::map<std::string, Setter, std::less<>>& setters() {
  static const auto& table = *new std::map<std::string, Setter, std::less<>>{
      {"source", choice<Source>(&FileSettings::source, {{"auto", Source::kAuto},
                                                        {"file", Source::kFile},
                                                        {"network", Source::kNetwork}})},
      {"mode", choice<Mode>(&FileSettings::mode, {{"off", Mode::kOff},
                                                  {"manual", Mode::kManual},
                                                  {"pacurl", Mode::kPacUrl},
                                                  {"wpad", Mode::kWpad}})},
      {"proxy-url", text(&FileSettings::proxyUrl, proxyUrlProblem)},
      {"pac-url", text(&FileSettings::pacUrl, pacUrlProblem)},
      {"user", text(&FileSettings::user, noProblem)},
      {"password", text(&FileSettings::password, noProblem)},
      {"password-file", text(&FileSettings::passwordFile, pathProblem)},
      {"password-credential", text(&FileSettings::passwordCredential, credentialProblem)},
      {"fallback",
       choice<Mode>(&FileSettings::fallback, {{"off", Mode::kOff}, {"wpad", Mode::kWpad}})},
      {"refresh", setRefresh},
      {"network-direct",
       choice<bool>(&FileSettings::networkDirectIsOff, {{"ignore", false}, {"off", true}})},
      {"find-proxy", choice<bool>(&FileSettings::findProxyAll, {{"first", false}, {"all", true}})},
  };
  return table;
}

/// The text of a value: a string, or a whole number as digits.
std::optional<std::string> textOf(const toml::node& node) {
  if (const auto* string = node.as_string()) return string->get();
  if (const auto* number = node.as_integer()) return std::to_string(number->get());
  return std::nullopt;
}

std::string setKey(FileSettings& settings, std::string_view key, const toml::node& value) {
  const auto setter = setters().find(key);
  if (setter == setters().end()) return "is not a known key";
  const auto given = textOf(value);
  if (!given) return "must be a text in double quotes";
  if (given->size() > kMaxValueBytes) return "is longer than 8192 bytes";
  if (given->find_first_of(std::string_view("\0\n\r", 3)) != std::string::npos) {
    return "must be one line";
  }
  return setter->second(settings, *given);
}

/// A key may hold anything in quotes: only plain ones are shown.
std::string shownKey(std::string_view key) {
  return isPrintableAscii(key) && key.size() <= 64 ? std::string(key) : std::string("this key");
}

std::string urlProblem(std::string_view url) {
  if (url.empty()) return "must not be empty";
  if (!isPrintableAscii(url)) return "must be printable ASCII without blanks";
  return {};
}

}  // namespace

std::string pacUrlProblem(std::string_view url) {
  if (std::string problem = urlProblem(url); !problem.empty()) return problem;
  const auto colon = url.find("://");
  std::string scheme(url.substr(0, colon == std::string_view::npos ? 0 : colon));
  std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  if (scheme != "http" && scheme != "https") return "must begin with http:// or https://";
  const auto authority = url.substr(colon + 3, url.find_first_of("/?#", colon + 3) - colon - 3);
  return authority.empty() ? "has no host" : "";
}

std::string proxyUrlProblem(std::string_view url) {
  if (std::string problem = urlProblem(url); !problem.empty()) return problem;
  if (client::parseManualProxy(url).kind == client::ProxyKind::kUnusable) {
    return "must be [scheme://]host[:port], with http, https, socks, socks4, socks4a, socks5 or "
           "socks5h as scheme";
  }
  return {};
}

std::optional<std::chrono::seconds> parseRefresh(std::string_view text) {
  if (text == "0") return std::chrono::seconds{0};
  static constexpr std::pair<char, int> kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
  std::uint32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest + 1 != end) return std::nullopt;
  for (const auto& [unit, seconds] : kUnits) {
    if (*rest != unit) continue;
    const auto time = std::chrono::seconds{std::int64_t{number} * seconds};
    if (time < kMinRefresh || time > kMaxRefresh) return std::nullopt;
    return time;
  }
  return std::nullopt;
}

ReadSettings readSettings(std::string_view text) {
  ReadSettings read;
  const toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    const auto& error = parsed.error();
    // The library's description quotes the text that it could not read: control characters are
    // made visible where the line is logged or shown.
    read.problems.push_back({error.source().begin.line, std::string(error.description())});
    return read;
  }
  for (const auto& [key, value] : parsed.table()) {
    const std::string problem = setKey(read.settings, key.str(), value);
    if (problem.empty()) continue;
    read.problems.push_back({key.source().begin.line, shownKey(key.str()) + " " + problem});
  }
  std::stable_sort(read.problems.begin(), read.problems.end(),
                   [](const Problem& a, const Problem& b) { return a.line < b.line; });
  return read;
}

void overlay(FileSettings& settings, const FileSettings& later) {
  if (later.password || later.passwordFile || later.passwordCredential) {
    settings.password.reset();
    settings.passwordFile.reset();
    settings.passwordCredential.reset();
  }
  const auto take = [&](auto member) {
    if (later.*member) settings.*member = later.*member;
  };
  take(&FileSettings::source);
  take(&FileSettings::mode);
  take(&FileSettings::proxyUrl);
  take(&FileSettings::pacUrl);
  take(&FileSettings::user);
  take(&FileSettings::password);
  take(&FileSettings::passwordFile);
  take(&FileSettings::passwordCredential);
  take(&FileSettings::fallback);
  take(&FileSettings::refresh);
  take(&FileSettings::networkDirectIsOff);
  take(&FileSettings::findProxyAll);
}

}  // namespace settings
