#include "client/ctl/commands/simulated_environment.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <CLI/CLI.hpp>
#include <optional>
#include <string_view>
#include <utility>

#include "client/ctl/commands/option_text.h"
#include "client/ctl/commands/script_time.h"
#include "engine/host/name_lookup.h"
#include "engine/wire/protocol.h"

namespace client {

namespace {

bool isAddress(const std::string& text) {
  in6_addr binary{};
  return inet_pton(AF_INET, text.c_str(), &binary) == 1 ||
         inet_pton(AF_INET6, text.c_str(), &binary) == 1;
}

/// The addresses of "ADDR[,ADDR]".
std::vector<std::string> addressList(const char* option, std::string_view text) {
  std::vector<std::string> addresses;
  for (;;) {
    const auto comma = text.find(',');
    std::string address(text.substr(0, comma));
    if (!isAddress(address)) {
      throw CLI::ValidationError(option, "\"" + address + "\" is no IPv4 or IPv6 address");
    }
    addresses.push_back(std::move(address));
    if (comma == std::string_view::npos) return addresses;
    text.remove_prefix(comma + 1);
  }
}

void checkCount(const char* option, const std::vector<std::string>& addresses) {
  if (addresses.size() <= pac_engine::kMaxAddresses) return;
  throw CLI::ValidationError(option, "more than " + std::to_string(pac_engine::kMaxAddresses) +
                                         " addresses; a script never sees further ones");
}

/// Adds the value of one option --resolve. If several of these options have the same name, the name
/// gets all their addresses.
void addName(const std::string& text, pac_engine::StaticNames& names) {
  constexpr const char* kOption = "--resolve";
  const auto equals = text.find('=');
  if (equals == std::string::npos) {
    throw CLI::ValidationError(kOption, "\"" + text + "\" is not NAME=ADDR[,ADDR]");
  }
  const auto name = pac_engine::asciiName(text.substr(0, equals));
  if (!name) {
    throw CLI::ValidationError(kOption, "\"" + text.substr(0, equals) + "\" is no host name");
  }
  auto& known = names[*name];
  for (auto& address : addressList(kOption, std::string_view(text).substr(equals + 1))) {
    known.push_back(std::move(address));
  }
  checkCount(kOption, known);
}

pac_engine::NameSource namesOf(const SimulatedEnvironment& environment) {
  pac_engine::NameSource source;
  source.offline = environment.offline;
  if (environment.names.empty()) return source;
  source.staticNames.emplace();
  for (const auto& text : environment.names) addName(text, *source.staticNames);
  return source;
}

std::string zoneOf(const SimulatedEnvironment& environment) {
  auto variable = zoneVariable(environment.zone);
  if (variable) return *std::move(variable);
  throw CLI::ValidationError("--tz", "there is no time zone \"" + *environment.zone +
                                         "\"; names are those of the zone database, such as "
                                         "Europe/Berlin or UTC");
}

std::int64_t clockOf(const std::string& text, const std::string& zone) {
  constexpr const char* kOption = "--at";
  const auto time = parseTime(text);
  if (!time) {
    throw CLI::ValidationError(kOption, "\"" + text +
                                            "\" is no date and time of ISO 8601, such as "
                                            "2026-03-02T09:00 or 2026-03-02T08:00:00Z");
  }
  const auto instant = instantOf(*time, zone);
  if (instant) return *instant;
  throw CLI::ValidationError(
      kOption, "the clocks of the zone are put forward past " + text + "; there is no such time");
}

}  // namespace

void addEnvironmentOptions(CLI::App& command, SimulatedEnvironment& environment) {
  addText(
      command, "--at", "TIME", environment.time,
      "The current time for the script: a date and\ntime of ISO 8601, in the zone of --tz unless\n"
      "it ends in \"Z\" or +hh:mm. The default is the\ntime of the clock");
  addText(command, "--tz", "ZONE", environment.zone,
          "Time zone of the script and of --at, a\nname of the zone database; by default the\n"
          "device's (/etc/localtime)");
  auto* const resolve =
      command
          .add_option(
              "--resolve", environment.names,
              "Addresses of a name. Repeat the option for\nother names. Names without addresses do not\nresolve")
          ->option_text("NAME=ADDR[,ADDR]")
          ->allow_extra_args(false);
  addText(command, "-c,--my-ip", "ADDR[,ADDR]", environment.ownAddresses,
          "The addresses of the device: myIpAddress\nreturns the first IPv4 address, "
          "myIpAddressEx\nreturns all. \"none\": the device has no address");
  command
      .add_flag(
          "--offline", environment.offline,
          "Look up nothing: names do not resolve, and\nthe own address is 127.0.0.1. Not together\n"
          "with --resolve")
      ->option_text(" ")
      ->excludes(resolve);
}

pac_engine::Options engineOptions(const SimulatedEnvironment& environment) {
  pac_engine::Options options;
  options.endsWithCaller = true;
  options.names = namesOf(environment);
  if (environment.ownAddresses == "none") {
    options.ownAddresses.emplace();
  } else if (environment.ownAddresses) {
    options.ownAddresses = addressList("--my-ip", *environment.ownAddresses);
    checkCount("--my-ip", *options.ownAddresses);
  }
  options.zone = zoneOf(environment);
  if (environment.time) options.clock = clockOf(*environment.time, options.zone);
  return options;
}

}  // namespace client
