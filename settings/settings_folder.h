// The administrator's settings on disk: settings.conf, then settings.d/*.conf in the order of their
// names, and the password that they name.
#pragma once

#include <string>
#include <vector>

#include "settings/settings_text.h"

namespace settings {

/// How many files of settings.d are read; a folder with more is a problem.
inline constexpr std::size_t kMaxFiles = 64;
/// Longest password that a file or credential holds, in bytes, without the line's end: as long as
/// the one that proxymanagerctl takes.
inline constexpr std::size_t kMaxPasswordBytes = 4096;

/// Where the settings are.
struct SettingsPaths {
  std::string folder = "/etc/proxymanager";  ///< holds settings.conf and settings.d
  std::string credentials;                   ///< systemd's folder of credentials; empty: none
};

/// One thing that is wrong with the files.
struct FileProblemLine {
  std::string text;        ///< "/etc/proxymanager/settings.conf:3: ...", one printable line
  bool isWarning = false;  ///< the settings are used nevertheless
};

struct FolderSettings {
  FileSettings settings;  ///< of all files together
  std::string password;   ///< of the file or the credential that `settings` name; wiped with this
  std::vector<std::string> modeFiles;     ///< the files that set a mode, the one that counts last
  std::vector<FileProblemLine> problems;  ///< what is wrong, in the order of the files
  /// Whether there is a problem that is no warning: then none of it should be used.
  bool isFaulty() const;

  FolderSettings() = default;
  FolderSettings(const FolderSettings&) = default;
  FolderSettings& operator=(const FolderSettings&) = default;
  ~FolderSettings();
};

/// Reads all files. A folder or file that does not exist sets nothing. A file that is a link, no
/// regular file, too long, owned by neither root nor the process's user, or that changes while it
/// is read, is a problem. Reads at most kMaxFiles + 2 files of kMaxFileBytes. Throws nothing but
/// bad_alloc.
FolderSettings readFolder(const SettingsPaths& paths);

}  // namespace settings
