#include "client/ctl/commands/update_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/option_text.h"
#include "client/ctl/commands/saved_settings.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/secret.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/library/proxy_answer.h"
#include "domain/canonical_url.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kUpdateFooter =
    R"(Replaces the whole configuration: a value that is not given is then not set.
With --user and without --password-file the command asks for the password at the
terminal. A password is never on the command line, which every user of the
machine can see. If the URL has a password, give "-" for URL and the URL on
standard input. The daemon may still make a change after the time limit.
Without --save the daemon forgets the configuration when it ends.

Output:
  Nothing if it succeeds. With --json an object: mode, proxyurl, pacurl,
  userName (as given, or null), httpCode (0, or null if the daemon does not run)
  and saved (the file that --save has written, or null).

Exit status:
)";

/// How long the settings service may take to read a saved file: ten times the pause of 200 ms
/// before it reads.
constexpr std::chrono::milliseconds kRepairTime{2000};

struct UpdateArguments {
  const char* mode = nullptr;
  std::string Configuration::*urlMember = nullptr;  ///< the mode's URL; null if the mode has none
  std::string url;
  std::optional<std::string> user;
  std::optional<std::string> passwordFile;
  bool save = false;
  CallOptions call;
};

bool hasBlankOrControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= ' ' || byte == 0x7F;
  });
}

/// The reason why no program can use `url`. Returns nothing if programs can use the URL.
std::optional<std::string> faultOf(const std::string& url, bool isPac) {
  if (url.empty()) return "is empty; \"proxymanagerctl off\" turns proxies off";
  if (hasBlankOrControl(url)) return "holds a blank or a control character";
  if (!isPac) {
    if (parseManualProxy(url).kind != ProxyKind::kUnusable) return std::nullopt;
    return "is no proxy's; give it as http://proxy.example:3128, or with https, socks4, socks4a, "
           "socks5 or socks5h in place of http";
  }
  const auto canonical = domain::canonicalUrl(url);
  const bool isFetched =
      canonical && (canonical->starts_with("http://") || canonical->starts_with("https://"));
  if (isFetched && !canonical->ends_with(":///")) return std::nullopt;
  return "is no URL that the daemon fetches; those begin with http:// or https:// and a host";
}

void checkArguments(const UpdateArguments& arguments) {
  if (arguments.user) {
    if (arguments.user->empty()) throw CLI::ValidationError("--user", "the name is empty");
    checkBusText("--user", *arguments.user);
  }
  if (arguments.urlMember == nullptr) return;
  if (arguments.url == "-") {
    if (arguments.passwordFile == "-") {
      throw CLI::ValidationError("--password-file", "standard input holds the URL already");
    }
    return;
  }
  checkBusText("URL", arguments.url);
  if (const auto fault = faultOf(arguments.url, arguments.urlMember == &Configuration::pacurl)) {
    throw CLI::ValidationError("URL", "it " + *fault);
  }
  if (hasPassword(arguments.url)) {
    throw CLI::ValidationError("URL",
                               "it holds a password, which every user can see on a command line; "
                               "give \"-\" and the URL on "
                               "standard input, or --user");
  }
}

std::string readUrl(bool isPac) {
  const auto line = readLine("-", "the URL", "URL: ");
  if (const auto fault = faultOf(line.text(), isPac)) {
    throw Failure(kBadData, "the URL in standard input " + *fault);
  }
  return line.text();
}

/// The configuration that the arguments describe. The function reads the password and the URL from
/// their files.
Configuration wanted(const UpdateArguments& arguments) {
  Configuration configuration;
  configuration.mode = arguments.mode;
  configuration.enableauth = arguments.user ? "y" : "n";
  if (arguments.urlMember != nullptr) {
    configuration.*arguments.urlMember =
        arguments.url == "-" ? readUrl(arguments.urlMember == &Configuration::pacurl)
                             : arguments.url;
  }
  if (arguments.user) {
    configuration.userName = *arguments.user;
    const auto password = arguments.passwordFile ? readLine(*arguments.passwordFile, "the password",
                                                            passwordPrompt(*arguments.user))
                                                 : askPassword(*arguments.user);
    configuration.password = password.text();
  }
  return configuration;
}

void checkSaved(const char* name, const std::string& text, bool isUrl) {
  const auto problem = savedTextProblem(text, isUrl);
  if (!problem.empty()) throw Failure(kUsage, std::string(name) + " cannot be saved: " + problem);
}

/// Saves the configuration. Prints a warning if another file overrules the saved file. @return the
/// saved file
std::string save(const Configuration& configuration) {
  checkSaved("the URL", configuration.proxyurl + configuration.pacurl, true);
  checkSaved("the user name", configuration.userName, false);
  auto file = saveSettings(configuration);
  for (const auto& later : laterSettings()) {
    complain(later.file + " is read later and sets \"" + later.key +
             "\": it overrules what is saved");
  }
  if (!hasSettingsService()) {
    complain("proxymanager-settings is not installed: nobody reads " + file);
  }
  return file;
}

/// The state of the settings service; null if it does not run.
Json settingsState(std::chrono::microseconds limit) {
  try {
    DaemonBus bus(limit);
    return Json::parse(bus.settingsState(), nullptr, false);
  } catch (const Failure&) {
    return {};
  }
}

/// Prints the problems of faulty settings files: if one file is faulty, the settings service uses
/// no file. First waits up to kRepairTime, because the service reads the saved file after a short
/// pause, and this file can repair the fault.
void warnOfFaultyFiles(std::chrono::microseconds limit) {
  const auto isFaulty = [](const Json& state) {
    return state.is_object() && state.value("faulty_files", Json()) == true;
  };
  const auto end = std::chrono::steady_clock::now() + kRepairTime;
  Json state = settingsState(limit);
  while (isFaulty(state) && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(kRepairTime / 10);
    state = settingsState(limit);
  }
  if (!isFaulty(state)) return;
  for (const auto& problem : state.value("problems", Json::array())) {
    if (problem.is_string()) complain(problem.get<std::string>());
  }
  complain("the settings service does not use what is saved until this is repaired");
}

/// Sends the configuration to the daemon. @return the daemon's result; nothing if the configuration
/// is saved and no daemon runs
std::optional<std::int32_t> handOver(const UpdateArguments& arguments,
                                     const Configuration& configuration) {
  try {
    DaemonBus bus(arguments.call.limit);
    return bus.update(configuration);
  } catch (const Failure& failure) {
    if (!arguments.save || failure.status() != kUnavailable) throw;
    complain(std::string("saved; ") + failure.what());
    return std::nullopt;
  }
}

void printDone(const Configuration& configuration, std::optional<std::int32_t> result,
               const std::string& saved) {
  const auto value = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
  Json object;
  object["mode"] = configuration.mode;
  object["proxyurl"] = value(withoutPassword(configuration.proxyurl));
  object["pacurl"] = value(withoutPassword(configuration.pacurl));
  object["userName"] = value(configuration.userName);
  object["httpCode"] = result ? Json(*result) : Json();
  object["saved"] = value(saved);
  printJson(object);
}

ExitStatus update(const UpdateArguments& arguments) {
  auto configuration = wanted(arguments);
  const WipedAtEnd password(configuration.password);
  const WipedAtEnd proxyurl(configuration.proxyurl);  // the old value may contain another password
  const WipedAtEnd pacurl(configuration.pacurl);
  const std::string saved = arguments.save ? save(configuration) : "";
  const auto result = handOver(arguments, configuration);
  if (arguments.save) warnOfFaultyFiles(arguments.call.limit);
  if (result && *result < 0) throw endingDaemon();
  if (arguments.call.json) printDone(configuration, result, saved);
  return kAnswered;
}

void addMode(CLI::App& program, Action& action, const char* mode, const char* help,
             std::string Configuration::*urlMember) {
  auto* const command = program.add_subcommand(mode, help);
  const auto arguments = std::make_shared<UpdateArguments>();
  arguments->mode = mode;
  arguments->urlMember = urlMember;
  if (urlMember != nullptr) {
    command->add_option("URL", arguments->url, "The URL, or \"-\" for standard input")
        ->required()
        ->option_text(" ");
  }
  addText(*command, "--user", "NAME", arguments->user, "Authenticate at the proxy as NAME");
  addText(*command, "--password-file", "FILE", arguments->passwordFile,
          "The password, as the only line of FILE, or\nof standard input for \"-\"");
  command->get_option("--password-file")->needs(command->get_option("--user"));
  command->add_flag(
      "--save", arguments->save,
      "Keep it in settings.d/90-saved.conf, for\nevery start of the daemon; needs root");
  addCallOptions(*command, arguments->call, kChangeLimit);
  command->footer(
      std::string(kUpdateFooter) +
      statusHelp(
          {{kAnswered, "the configuration holds; a script is then fetched in the background"},
           {kBadData, "the text that was read is no password or URL"},
           {kNoInput, "the file with the password cannot be read"}},
          kBusStatuses));
  command->callback([arguments, &action] {
    checkArguments(*arguments);
    action = [arguments] { return update(*arguments); };
  });
}

}  // namespace

void addUpdateCommands(CLI::App& program, Action& action) {
  addMode(program, action, "off", "Use no proxy.", nullptr);
  addMode(program, action, "manual", "Use the proxy at URL.", &Configuration::proxyurl);
  addMode(program, action, "pacurl", "Use the PAC script at URL.", &Configuration::pacurl);
  addMode(program, action, "wpad", "Use the PAC script that the network announces.", nullptr);
}

}  // namespace client
