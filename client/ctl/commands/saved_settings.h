// The files of --save: a settings file that proxymanager-settings reads, and a file with the
// password.
#pragma once

#include <string>
#include <vector>

#include "client/ctl/daemon/daemon_bus.h"

namespace client {

/// Where the settings service looks for the administrator's files.
inline constexpr char kSettingsFolder[] = "/etc/proxymanager/settings.d";
/// The files that --save writes and "settings reset" removes. The number is high, so that a saved
/// setting overrules most other files; a device can have files with a higher number.
inline constexpr char kSavedName[] = "90-saved.conf";
inline constexpr char kSavedPasswordName[] = "90-saved.password";
/// The group of the settings service. Besides root only its members read the files.
inline constexpr char kSettingsGroup[] = "proxymanager-settings";
/// Longest text that the settings service takes for a key, in bytes.
inline constexpr std::size_t kMaxSavedBytes = 8192;

/// The reason why a settings file cannot hold `text`; empty if it can. A URL in a settings file is
/// printable ASCII.
std::string savedTextProblem(const std::string& text, bool isUrl);

/// The text of the settings file for `configuration`, whose password is in `passwordFile`. A value
/// that `configuration` does not set is removed, even if an earlier file sets it.
std::string settingsText(const Configuration& configuration, const std::string& passwordFile);

/// Writes both files, each whole or not at all, with mode 0640 and the settings service's group
/// (root's if there is no such group). A configuration without a password removes the old
/// password's file. @return the settings file. Throws Failure: kDenied without the right to write
/// there, kOutput if the disk fails.
std::string saveSettings(const Configuration& configuration);

/// Removes both files. @return whether there was one. Throws Failure (kDenied, kOutput).
bool resetSettings();

/// Whether the settings service is installed. If not, nobody reads the saved files.
bool hasSettingsService();

/// A settings file that is read after the saved one, and a key of a configuration that it sets.
struct LaterSettings {
  std::string file;
  std::string key;
};

/// The files that overrule the saved file, in the order in which they are read. A file that cannot
/// be read is left out.
std::vector<LaterSettings> laterSettings();

}  // namespace client
