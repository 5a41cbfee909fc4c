// The files of --save: a settings file that proxymanager-settings reads, and a file with the
// password.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "client/ctl/daemon/daemon_bus.h"

namespace client {

/// The folder in which the settings service looks for the administrator's files.
inline constexpr char kSettingsFolder[] = "/etc/proxymanager/settings.d";
/// The names of the files that --save writes and "settings reset" removes. The name of a password
/// file can end in a number (".1"). The number 90 is high, so that saved settings overrule most
/// other files. A device can have files with a higher number.
inline constexpr char kSavedName[] = "90-saved.conf";
inline constexpr char kSavedPasswordName[] = "90-saved.password";
/// Two programs that save at the same time would remove each other's password. So a program changes
/// the files only while it holds this lock. It holds the lock only as long as a few fsync calls
/// take.
inline constexpr char kSaveLock[] = "/run/proxymanagerctl-save.lock";
inline constexpr std::chrono::seconds kSaveLockLimit{10};
/// The group of the settings service. Only root and members of this group can read the files.
inline constexpr char kSettingsGroup[] = "proxymanager-settings";
/// Longest text that the settings service accepts for a key, in bytes.
inline constexpr std::size_t kMaxSavedBytes = 8192;

/// The reason why a settings file cannot contain `text`; empty if it can contain the text. A URL in
/// a settings file is printable ASCII.
std::string savedTextProblem(const std::string& text, bool isUrl);

/// The settings file for `configuration`. The password is in `passwordFile`. If `configuration` has
/// no user or no password, the file sets an empty text, which replaces the value of a file that is
/// read earlier.
std::string settingsText(const Configuration& configuration, const std::string& passwordFile);

/// Writes both files, each atomically, with mode 0640 and the settings service's group (root's if
/// there is no such group). Each password gets a file of its own, so that the old settings and the
/// old password are complete after a failure or a power cut. Removes the old password file last.
/// Also removes the files that an interrupted call has left.
/// @return the settings file
/// Throws Failure: kDenied if this user may not write in kSettingsFolder, kOutput if the disk fails
/// or if another program has held the lock for kSaveLockLimit.
std::string saveSettings(const Configuration& configuration);

/// Removes all files that --save has written. @return whether there was such a file. Throws Failure
/// (kDenied, kOutput).
bool resetSettings();

/// Whether the settings service is installed. If not, no program reads the saved files.
bool hasSettingsService();

/// A settings file that is read after the saved file, and a key of the configuration that it sets.
struct LaterSettings {
  std::string file;
  std::string key;
};

/// The files that overrule the saved file, in the order in which they are read. Files that cannot
/// be read are left out.
std::vector<LaterSettings> laterSettings();

}  // namespace client
