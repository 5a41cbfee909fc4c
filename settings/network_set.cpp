#include "settings/network_set.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "settings/manual_script.h"
#include "settings/settings_text.h"

namespace settings {

namespace {

constexpr std::string_view kPathBase = "/org/pacrunner/configuration";

// DHCP servers often end the URL with a line end or a blank, and network managers push it as it is.
std::string_view trimmed(std::string_view text) {
  const auto isBlank = [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

void translateAuto(const PushedConfiguration& pushed, NetworkConfiguration& result) {
  // The URL has priority over the script, as network managers expect.
  if (const auto url = trimmed(pushed.url); !url.empty()) {
    result.isUsable = pacUrlProblem(url).empty();
    result.configuration.mode = Mode::kPacUrl;
    result.configuration.pacUrl = url;
  } else if (pushed.script) {
    result.isUsable = !pushed.script->empty();
    result.configuration.mode = Mode::kPacUrl;
    result.script = *pushed.script;
  } else {
    result.isUsable = true;
    result.configuration.mode = Mode::kWpad;
  }
}

void translateManual(const PushedConfiguration& pushed, NetworkConfiguration& result) {
  const auto servers = parseServers(pushed.servers);
  if (servers.empty()) return;
  if (servers.size() == 1 && pushed.excludes.empty()) {
    result.isUsable = true;
    result.configuration.mode = Mode::kManual;
    result.configuration.proxyUrl = manualProxyUrl(servers.front());
    return;
  }
  result.configuration.mode = Mode::kPacUrl;
  std::string script = manualScript(servers, pushed.excludes);
  result.isUsable = script.size() <= kMaxScriptBytes;
  if (result.isUsable) result.script = std::move(script);
}

/// A lower rank wins. A configuration without a default route has no rank.
std::optional<std::uint64_t> rankOf(const NetworkConfiguration& configuration,
                                    const DefaultRoutes& routes) {
  if (configuration.interface.empty()) return std::numeric_limits<std::uint64_t>::max();
  const auto route = routes.find(configuration.interface);
  if (route == routes.end()) return std::nullopt;
  return route->second.metric;
}

}  // namespace

NetworkConfiguration translate(const PushedConfiguration& pushed) {
  NetworkConfiguration result;
  result.interface = pushed.interface;
  switch (pushed.method) {
    case PushedConfiguration::Method::kDirect:
      result.isDirect = true;
      result.isUsable = true;
      break;
    case PushedConfiguration::Method::kAuto:
      translateAuto(pushed, result);
      break;
    case PushedConfiguration::Method::kManual:
      translateManual(pushed, result);
      break;
  }
  return result;
}

std::optional<std::uint64_t> NetworkSet::add(NetworkConfiguration configuration,
                                             std::string_view sender) {
  if (mConfigurations.size() >= kMaxConfigurations || countOf(sender) >= kMaxOfSender) {
    return std::nullopt;
  }
  const std::uint64_t number = mNext++;
  configuration.number = number;
  configuration.sender = sender;
  mConfigurations.emplace(number, std::move(configuration));
  return number;
}

bool NetworkSet::remove(std::uint64_t number, std::string_view sender) {
  const auto found = mConfigurations.find(number);
  if (found == mConfigurations.end() || found->second.sender != sender) return false;
  mConfigurations.erase(found);
  return true;
}

std::size_t NetworkSet::removeSender(std::string_view sender) {
  return std::erase_if(mConfigurations,
                       [&](const auto& entry) { return entry.second.sender == sender; });
}

std::size_t NetworkSet::countOf(std::string_view sender) const {
  return static_cast<std::size_t>(
      std::count_if(mConfigurations.begin(), mConfigurations.end(),
                    [&](const auto& entry) { return entry.second.sender == sender; }));
}

const NetworkConfiguration* holding(const NetworkSet& set, const DefaultRoutes& routes,
                                    bool directCounts, bool scriptsCount) {
  const NetworkConfiguration* best = nullptr;
  std::uint64_t bestRank = 0;
  for (const auto& [number, configuration] : set.all()) {
    if (!configuration.isUsable || (configuration.isDirect && !directCounts)) continue;
    if (!configuration.script.empty() && !scriptsCount) continue;
    const auto rank = rankOf(configuration, routes);
    // The map is sorted from old to new. So if two ranks are equal, the later configuration is the
    // newer one.
    if (!rank || (best != nullptr && *rank > bestRank)) continue;
    best = &configuration;
    bestRank = *rank;
  }
  return best;
}

std::optional<std::uint64_t> numberOfPath(std::string_view path) {
  if (!path.starts_with(kPathBase)) return std::nullopt;
  const auto digits = path.substr(kPathBase.size());
  std::uint64_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, number);
  if (digits.empty() || error != std::errc() || rest != end) return std::nullopt;
  return pathOfNumber(number) == path ? std::optional(number) : std::nullopt;
}

std::string pathOfNumber(std::uint64_t number) {
  return std::string(kPathBase) + std::to_string(number);
}

}  // namespace settings
