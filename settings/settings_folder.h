// The administrator's settings on disk: settings.conf, then settings.d/*.conf in the order of their
// names, and the password that they refer to.
#pragma once

#include <string>
#include <vector>

#include "settings/settings_text.h"

namespace settings {

/// Maximum number of files of settings.d that are read. More files are a problem.
inline constexpr std::size_t kMaxFiles = 64;
/// Longest password in a file or a credential, in bytes, without the line end. proxymanagerctl has
/// the same limit.
inline constexpr std::size_t kMaxPasswordBytes = 4096;

/// Where the settings are.
struct SettingsPaths {
  std::string folder = "/etc/proxymanager";  ///< contains settings.conf and settings.d
  std::string credentials;                   ///< systemd's folder of credentials; may be empty
};

/// One thing that is wrong with the files.
struct FileProblemLine {
  std::string text;        ///< "/etc/proxymanager/settings.conf:3: ...", one printable line
  bool isWarning = false;  ///< the settings are still used
};

struct FolderSettings {
  FileSettings settings;  ///< from all files together
  std::string password;   ///< the password that `settings` refer to; wiped on destruction
  std::vector<std::string> modeFiles;     ///< the files that set a mode; the last one counts
  std::vector<FileProblemLine> problems;  ///< what is wrong, in the order of the files
  /// Whether there is a problem that is not a warning. If so, no setting should be used.
  bool isFaulty() const;

  FolderSettings() = default;
  FolderSettings(const FolderSettings&) = default;
  FolderSettings& operator=(const FolderSettings&) = default;
  ~FolderSettings();
};

/// Reads all files. A missing folder or file sets nothing. A file is a problem if it is a link, is
/// not a regular file, is too long, changes during the reading, or belongs to another user than
/// root or the user of the process. Reads at most kMaxFiles + 2 files of kMaxFileBytes each. Throws
/// only std::bad_alloc.
FolderSettings readFolder(const SettingsPaths& paths);

}  // namespace settings
