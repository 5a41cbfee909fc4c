// Tests the reading of settings that a network manager pushes: any keys with values of any types,
// in a real message. The settings that the service reads equal those that a model reads. The result
// is a valid configuration, or the settings are ignored.
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "settings/network_set.h"
#include "settings/pacrunner.h"
#include "settings/settings_text.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace settings;

namespace {

constexpr const char* kKeys[] = {"Method",   "URL",         "Script",  "Interface", "Servers",
                                 "Excludes", "BrowserOnly", "Domains", "",          "method"};
constexpr const char* kMethods[] = {"direct", "auto", "manual", "socks"};

sd_bus* anyBus() {
  int pair[2];
  sd_bus* bus = nullptr;
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0 && sd_bus_new(&bus) >= 0 &&
              sd_bus_set_fd(bus, pair[0], pair[0]) >= 0 && sd_bus_start(bus) >= 0,
          "a connection");
  return bus;
}

/// The bus accepts UTF-8 without NUL. Here, all texts are ASCII without NUL.
std::string textOf(std::string_view bytes) {
  std::string text(bytes);
  for (char& c : text) {
    c = static_cast<char>(static_cast<unsigned char>(c) & 0x7FU);
    if (c == '\0') c = ' ';
  }
  return text;
}

/// The settings that the service is expected to read.
struct Model {
  std::map<std::string, std::string> texts;
  std::map<std::string, std::vector<std::string>> lists;
};

void appendText(sd_bus_message* message, fuzz::Input& input, const std::string& key, Model& model) {
  const bool isMethod = key == "Method" && input.below(4) != 0;
  const std::string value = isMethod ? kMethods[input.below(4)] : textOf(input.upTo('|'));
  require(sd_bus_message_append(message, "{sv}", key.c_str(), "s", value.c_str()) >= 0, "a text");
  model.texts[key] = value;
}

void appendList(sd_bus_message* message, fuzz::Input& input, const std::string& key, Model& model) {
  require(sd_bus_message_open_container(message, 'e', "sv") >= 0 &&
              sd_bus_message_append(message, "s", key.c_str()) >= 0 &&
              sd_bus_message_open_container(message, 'v', "as") >= 0 &&
              sd_bus_message_open_container(message, 'a', "s") >= 0,
          "a list");
  for (std::size_t left = input.below(6); left > 0; left--) {
    const auto value = textOf(input.upTo('|'));
    require(sd_bus_message_append(message, "s", value.c_str()) >= 0, "its entry");
    model.lists[key].push_back(value);
  }
  for (int open = 0; open < 3; open++) {
    require(sd_bus_message_close_container(message) >= 0, "its end");
  }
}

void appendOther(sd_bus_message* message, fuzz::Input& input, const std::string& key) {
  const char* name = key.c_str();
  switch (input.below(4)) {
    case 0:
      sd_bus_message_append(message, "{sv}", name, "b", 1);
      break;
    case 1:
      sd_bus_message_append(message, "{sv}", name, "v", "s", "nested");
      break;
    case 2:
      sd_bus_message_append(message, "{sv}", name, "a(su)", 1, "x", 7U);
      break;
    default:
      sd_bus_message_append(message, "{sv}", name, "ay", 2, 1, 2);
  }
}

void judge(const NetworkConfiguration& made) {
  if (!made.isUsable || made.isDirect) return;
  const auto& configuration = made.configuration;
  require(configuration.user.empty() && configuration.password.empty(), "no credentials");
  switch (configuration.mode) {
    case Mode::kManual:
      require(proxyUrlProblem(configuration.proxyUrl).empty(), "a proxy that the daemon takes");
      break;
    case Mode::kPacUrl:
      require(configuration.pacUrl.empty() != made.script.empty(), "a URL or a script");
      break;
    default:
      require(configuration.mode == Mode::kWpad, "a network turns nothing off");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static sd_bus* const bus = anyBus();
  fuzz::Input input(data, size);
  sd_bus_message* made = nullptr;
  require(sd_bus_message_new_method_call(bus, &made, "a.b", "/", "a.b", "C") >= 0, "a message");
  const BusMessage message(made);
  require(sd_bus_message_open_container(made, 'a', "{sv}") >= 0, "a dictionary");
  Model model;
  while (!input.empty()) {
    const std::string key = kKeys[input.below(std::size(kKeys))];
    switch (input.below(3)) {
      case 0:
        appendText(made, input, key, model);
        break;
      case 1:
        appendList(made, input, key, model);
        break;
      default:
        appendOther(made, input, key);
    }
  }
  require(sd_bus_message_close_container(made) >= 0 && sd_bus_message_seal(made, 1, 0) >= 0,
          "sealed");

  PushedConfiguration pushed;
  std::string problem;
  const int result = readPushed(made, pushed, problem);
  const auto& method = model.texts["Method"];
  const bool isKnown = method == "direct" || method == "auto" || method == "manual";
  // The limits of texts and lists are not checked here, because an input is too short to reach
  // them.
  require(result == (isKnown ? 0 : 1) && problem.empty() == isKnown, "the method decides");
  if (result != 0) return 0;
  require(pushed.url == model.texts["URL"] && pushed.interface == model.texts["Interface"] &&
              pushed.script.value_or("") == model.texts["Script"],
          "the last text of a key counts");
  require(pushed.servers == model.lists["Servers"] && pushed.excludes == model.lists["Excludes"],
          "lists are taken whole");
  judge(translate(pushed));
  return 0;
}
