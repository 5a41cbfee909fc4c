#include "relay/configuration.h"

#include <arpa/inet.h>

#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <functional>
#include <map>
#include <optional>

#include "base/ascii.h"

namespace relay {

namespace {

/// Sets one key from its value. Returns the error text, or an empty text.
using Setter = std::function<std::string(Configuration&, const toml::node&)>;

template <typename Number>
bool readNumber(std::string_view text, Number& number) {
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && rest == text.data() + text.size() && !text.empty();
}

std::optional<std::chrono::seconds> timeOf(std::string_view text) {
  if (text.empty()) return std::nullopt;
  static constexpr std::pair<char, int> kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}};
  std::uint32_t number = 0;
  if (!readNumber(text.substr(0, text.size() - 1), number)) return std::nullopt;
  for (const auto& [unit, seconds] : kUnits) {
    if (text.back() != unit) continue;
    const std::chrono::seconds time{std::int64_t{number} * seconds};
    if (time < kShortestTime || time > kLongestTime) return std::nullopt;
    return time;
  }
  return std::nullopt;
}

Setter time(std::chrono::seconds Configuration::*member) {
  return [member](Configuration& configuration, const toml::node& node) -> std::string {
    const auto* text = node.as_string();
    const auto read = text != nullptr ? timeOf(text->get()) : std::nullopt;
    if (!read) return "must be a time from 1s to 24h, such as \"60s\", \"5m\" or \"1h\"";
    configuration.*member = *read;
    return {};
  };
}

Setter count(unsigned Configuration::*member) {
  return [member](Configuration& configuration, const toml::node& node) -> std::string {
    const auto* number = node.as_integer();
    if (number == nullptr || number->get() < 1 || number->get() > kMostConnections) {
      return "must be a number from 1 to 65536";
    }
    configuration.*member = static_cast<unsigned>(number->get());
    return {};
  };
}

/// Adds one value of a list. Returns false if the value is wrong.
using Taker = std::function<bool(Configuration&, const toml::node&)>;

Setter list(Taker take, std::string wants) {
  return [take = std::move(take), wants = std::move(wants)](Configuration& configuration,
                                                            const toml::node& node) -> std::string {
    const auto* values = node.as_array();
    if (values == nullptr) return "must be a list of " + wants;
    if (values->size() > kMaxListValues) return "has more than 256 values";
    for (const auto& value : *values) {
      if (!take(configuration, value)) return "must be a list of " + wants;
    }
    return {};
  };
}

bool isWord(std::string_view text) {
  return !text.empty() && text.size() <= 255 &&
         std::all_of(text.begin(), text.end(),
                     [](unsigned char byte) { return byte > 0x20 && byte < 0x7F; });
}

Setter words(std::vector<std::string> Configuration::*member, const std::string& wants) {
  return list(
      [member](Configuration& configuration, const toml::node& node) {
        const auto* text = node.as_string();
        if (text == nullptr || !isWord(text->get()) || text->get() == "@") return false;
        (configuration.*member).push_back(text->get());
        return true;
      },
      wants);
}

bool takePorts(Configuration& configuration, const toml::node& node) {
  PortRange range;
  if (const auto* number = node.as_integer()) {
    if (number->get() < 1 || number->get() > 65535) return false;
    range.first = range.last = static_cast<std::uint16_t>(number->get());
  } else if (const auto* text = node.as_string()) {
    const std::string_view ends = text->get();
    const auto dash = ends.find('-');
    if (dash == std::string_view::npos) return false;
    if (!readNumber(ends.substr(0, dash), range.first)) return false;
    if (!readNumber(ends.substr(dash + 1), range.last)) return false;
    if (range.first == 0 || range.last < range.first) return false;
  } else {
    return false;
  }
  configuration.allowPorts.push_back(range);
  return true;
}

bool takeNetwork(Configuration& configuration, const toml::node& node) {
  const auto* text = node.as_string();
  Network network;
  if (text == nullptr || !readNetwork(text->get(), network)) return false;
  configuration.allowFrom.push_back(network);
  return true;
}

std::string setNoAnswer(Configuration& configuration, const toml::node& node) {
  const auto* text = node.as_string();
  if (text == nullptr || (text->get() != "direct" && text->get() != "refuse")) {
    return "must be \"direct\" or \"refuse\"";
  }
  configuration.whenNoAnswer = text->get() == "direct" ? NoAnswer::kDirect : NoAnswer::kRefuse;
  return {};
}

std::string setCredentialsFor(Configuration& configuration, const toml::node& node) {
  const auto* text = node.as_string();
  if (text != nullptr && text->get() == "all") return {};
  configuration.credentialsForAll = false;
  if (words(&Configuration::credentialsFor, "")(configuration, node).empty()) return {};
  return "must be \"all\" or a list of users and @groups";
}

std::string setCredentialsFile(Configuration& configuration, const toml::node& node) {
  const auto* text = node.as_string();
  if (text == nullptr || !text->get().starts_with('/')) return "must be an absolute path";
  configuration.credentialsFile = text->get();
  return {};
}

std::string setLogRequests(Configuration& configuration, const toml::node& node) {
  const auto* value = node.as_boolean();
  if (value == nullptr) return "must be true or false";
  configuration.logRequests = value->get();
  return {};
}

const std::map<std::string, Setter, std::less<>>& setters() {
  static const auto& table = *new std::map<std::string, Setter, std::less<>>{
      {"when-no-answer", setNoAnswer},
      {"allow-ports", list(takePorts, "ports from 1 to 65535, such as 443 or \"8000-8999\"")},
      {"allow-from", list(takeNetwork, "networks, such as \"192.0.2.0/24\"")},
      {"allow-users", words(&Configuration::allowUsers, "users and @groups")},
      {"deny-users", words(&Configuration::denyUsers, "users and @groups")},
      {"credentials-for", setCredentialsFor},
      {"credentials-file", setCredentialsFile},
      {"credentials-hosts", words(&Configuration::credentialsHosts, "hosts of proxies")},
      {"max-connections", count(&Configuration::maxConnections)},
      {"max-connections-of-user", count(&Configuration::maxConnectionsOfUser)},
      {"head-time", time(&Configuration::headTime)},
      {"connect-time", time(&Configuration::connectTime)},
      {"idle-time", time(&Configuration::idleTime)},
      {"kept-time", time(&Configuration::keptTime)},
      {"penalty-time", time(&Configuration::penaltyTime)},
      {"log-requests", setLogRequests},
  };
  return table;
}

std::string setKey(Configuration& configuration, std::string_view key, const toml::node& value) {
  const auto setter = setters().find(key);
  if (setter == setters().end()) return "is not a known key";
  return setter->second(configuration, value);
}

/// The name of a key for a message. A key in quotes may contain any text, so a message shows only a
/// plain key.
std::string shownKey(std::string_view key) {
  return isWord(key) && key.size() <= 64 ? std::string(key) : std::string("this key");
}

template <typename Read>
void inOrderOfLines(Read& read) {
  std::stable_sort(read.problems.begin(), read.problems.end(),
                   [](const Problem& a, const Problem& b) { return a.line < b.line; });
}

std::optional<std::string> textAt(const toml::table& table, std::string_view key) {
  const auto* text = table[key].as_string();
  if (text == nullptr || text->get().size() > 1024) return std::nullopt;
  if (text->get().find_first_of(std::string_view("\0\r\n", 3)) != std::string::npos) {
    return std::nullopt;
  }
  return text->get();
}

}  // namespace

bool readNetwork(std::string_view text, Network& network) {
  const auto slash = text.find('/');
  const std::string address(text.substr(0, slash));
  Network read;
  in_addr four{};
  unsigned most = 128;
  if (inet_pton(AF_INET, address.c_str(), &four) == 1) {
    read.address[10] = read.address[11] = 0xFF;
    std::memcpy(read.address + 12, &four, sizeof(four));
    most = 32;
  } else if (inet_pton(AF_INET6, address.c_str(), read.address) != 1) {
    return false;
  }
  unsigned prefix = most;
  if (slash != std::string_view::npos && !readNumber(text.substr(slash + 1), prefix)) return false;
  if (prefix > most) return false;
  read.prefix = prefix + (128 - most);
  network = read;
  return true;
}

bool contains(const Network& network, const unsigned char* address) {
  const std::size_t whole = network.prefix / 8;
  if (std::memcmp(network.address, address, whole) != 0) return false;
  const unsigned rest = network.prefix % 8;
  if (rest == 0) return true;
  const unsigned mask = 0xFFU << (8 - rest) & 0xFFU;
  return ((network.address[whole] ^ address[whole]) & mask) == 0;
}

ReadConfiguration readConfiguration(std::string_view text) {
  ReadConfiguration read;
  if (text.size() > kMaxFileBytes) {
    read.problems.push_back({0, "is longer than 65536 bytes"});
    return read;
  }
  const toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    const auto& error = parsed.error();
    read.problems.push_back({error.source().begin.line, std::string(error.description())});
    return read;
  }
  for (const auto& [key, value] : parsed.table()) {
    const std::string problem = setKey(read.configuration, key.str(), value);
    if (problem.empty()) continue;
    read.problems.push_back({key.source().begin.line, shownKey(key.str()) + " " + problem});
  }
  inOrderOfLines(read);
  return read;
}

ReadCredentials readCredentials(std::string_view text) {
  ReadCredentials read;
  if (text.size() > kMaxFileBytes) {
    read.problems.push_back({0, "is longer than 65536 bytes"});
    return read;
  }
  const toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    // The description from the TOML library could quote a line of the file, and the file contains
    // passwords.
    read.problems.push_back({parsed.error().source().begin.line, "is not TOML"});
    return read;
  }
  for (const auto& [key, value] : parsed.table()) {
    const auto* table = value.as_table();
    const auto user = table != nullptr ? textAt(*table, "user") : std::nullopt;
    const auto password = table != nullptr ? textAt(*table, "password") : std::nullopt;
    if (!user || !password || table->size() != 2 || !isWord(key.str())) {
      read.problems.push_back(
          {key.source().begin.line, "must be [\"host:port\"] with user and password alone"});
      continue;
    }
    read.byHost.emplace_back(base::lowerCase(key.str()), Credentials{*user, *password});
  }
  inOrderOfLines(read);
  return read;
}

}  // namespace relay
