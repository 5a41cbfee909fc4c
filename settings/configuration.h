// A proxy configuration in the form that the daemon accepts.
#pragma once

#include <string>

namespace settings {

enum class Mode { kOff, kManual, kPacUrl, kWpad };

/// "off", "manual", "pacurl" or "wpad".
inline const char* modeText(Mode mode) {
  switch (mode) {
    case Mode::kManual:
      return "manual";
    case Mode::kPacUrl:
      return "pacurl";
    case Mode::kWpad:
      return "wpad";
    case Mode::kOff:
      break;
  }
  return "off";
}

/// The arguments of updateProxyconfig. Only the URL of the current mode is set.
struct Configuration {
  Mode mode = Mode::kOff;
  std::string proxyUrl;  ///< set in mode manual
  std::string pacUrl;    ///< set in mode pacurl
  std::string user;
  std::string password;

  /// The daemon keeps the user and the password only if authentication is on.
  bool authenticates() const { return !user.empty() || !password.empty(); }
  bool operator==(const Configuration&) const = default;
};

}  // namespace settings
