#include "settings/source_choice.h"

#include "base/visible.h"

namespace settings {

namespace {

Configuration ofFile(const FileSettings& settings, const std::string& password) {
  Configuration configuration;
  configuration.mode = *settings.mode;
  if (*settings.mode == Mode::kManual) configuration.proxyUrl = settings.proxyUrl.value_or("");
  if (*settings.mode == Mode::kPacUrl) configuration.pacUrl = settings.pacUrl.value_or("");
  if (*settings.mode != Mode::kOff) {
    configuration.user = settings.user.value_or("");
    configuration.password = password;
  }
  return configuration;
}

Choice byFile(const FileSettings& settings, const std::string& password, std::string reason) {
  return {Choice::Holder::kFile, ofFile(settings, password), std::move(reason), nullptr};
}

// The configuration does not contain the file's user and password, because the network's proxy
// would receive them.
Choice byNetwork(const NetworkConfiguration& network, std::string reason) {
  if (!network.interface.empty()) {
    reason += ", interface " + base::visible(network.interface);
  } else {
    reason += ", which names no interface";
  }
  return {Choice::Holder::kNetwork, network.configuration, std::move(reason), &network};
}

Choice byNobody(Mode mode, std::string reason) {
  Choice choice;
  choice.configuration.mode = mode;
  choice.reason = std::move(reason);
  return choice;
}

}  // namespace

Choice choose(const FileSettings& settings, const std::string& password,
              const NetworkConfiguration* network) {
  switch (settings.source.value_or(Source::kAuto)) {
    case Source::kFile:
      if (settings.mode) return byFile(settings, password, "source is \"file\"");
      return byNobody(Mode::kOff, "source is \"file\", and no file sets a mode");
    case Source::kNetwork:
      if (network != nullptr) return byNetwork(*network, "source is \"network\"");
      return byNobody(Mode::kOff, "source is \"network\", and no network manager sets a proxy");
    case Source::kAuto:
      break;
  }
  if (settings.mode) return byFile(settings, password, "a file sets the mode");
  if (network != nullptr) return byNetwork(*network, "no file sets a mode; a network manager does");
  return byNobody(settings.fallback.value_or(Mode::kOff),
                  "no file sets a mode and no network manager sets a proxy: the fallback is used");
}

std::string missingKey(const FileSettings& settings) {
  if (settings.mode == Mode::kManual && !settings.proxyUrl) {
    return "mode is \"manual\", and proxy-url is not set";
  }
  if (settings.mode == Mode::kPacUrl && !settings.pacUrl) {
    return "mode is \"pacurl\", and pac-url is not set";
  }
  return {};
}

}  // namespace settings
