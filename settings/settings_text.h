// The administrator's settings: the keys of a settings file, and how its text is read.
//
// The format is TOML. Each key is optional. A key in a later file replaces the same key of an
// earlier file. An unknown key, a value of the wrong type or an impossible value is a problem,
// which is reported with its line. A misspelt key must not silently leave a device without its
// proxy.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/configuration.h"

namespace settings {

/// Longest text of a value, in bytes: longer than any URL that a server accepts.
inline constexpr std::size_t kMaxValueBytes = 8U << 10U;
/// Longest settings file that is read, in bytes. The commented example has under 2 KiB.
inline constexpr std::size_t kMaxFileBytes = 64U << 10U;
/// Shortest time between two refreshes: each costs a download for the whole device.
inline constexpr std::chrono::seconds kMinRefresh{60};
/// Longest time between two refreshes.
inline constexpr std::chrono::seconds kMaxRefresh{std::chrono::hours{24 * 365}};

/// Which sources may decide.
enum class Source {
  kAuto,    ///< the file if it sets a mode, else the network, else the fallback
  kFile,    ///< only the file
  kNetwork  ///< only network managers
};

/// The settings of one file, or of all files together.
struct FileSettings {
  std::optional<Source> source;
  std::optional<Mode> mode;
  std::optional<std::string> proxyUrl;
  std::optional<std::string> pacUrl;
  std::optional<std::string> user;
  std::optional<std::string> password;            ///< the password itself
  std::optional<std::string> passwordFile;        ///< absolute path
  std::optional<std::string> passwordCredential;  ///< name of a systemd credential
  std::optional<Mode> fallback;                   ///< kOff or kWpad
  std::optional<std::chrono::seconds> refresh;    ///< 0: never
  std::optional<bool> networkDirectIsOff;         ///< network-direct = "off"
  std::optional<bool> findProxyAll;               ///< find-proxy = "all"

  bool operator==(const FileSettings&) const = default;
};

/// A problem of a settings file.
struct Problem {
  unsigned line = 0;  ///< line number from 1; 0 if the problem is the file itself
  std::string text;   ///< one printable line

  bool operator==(const Problem&) const = default;
};

struct ReadSettings {
  FileSettings settings;          ///< the valid settings
  std::vector<Problem> problems;  ///< empty if the whole text is valid
};

/// Reads the text of one settings file. A problem never quotes a value. Every user may read the
/// problems, and a value can be a password. Throws only std::bad_alloc.
ReadSettings readSettings(std::string_view text);

/// Overwrites `settings` with the keys that `later` sets. A later password of any kind replaces an
/// earlier password of another kind.
void overlay(FileSettings& settings, const FileSettings& later);

/// Reads a duration: a whole number with "s", "m", "h" or "d", from kMinRefresh to kMaxRefresh, or
/// only "0". Returns nothing for any other text.
std::optional<std::chrono::seconds> parseRefresh(std::string_view text);

/// The reason why `url` is not a valid PAC URL; empty if it is valid. A valid PAC URL has the
/// scheme http or https, a host, a number as the port (if any), and only printable ASCII
/// characters.
std::string pacUrlProblem(std::string_view url);

/// The reason why `url` is not a valid manual proxy; empty if it is valid.
std::string proxyUrlProblem(std::string_view url);

/// `url` without user and password, so that every user may see it. A password may have a character
/// that ends the host ("http://user:pass/word@host"). Then "***" replaces everything between the
/// first ":" and the last "@".
std::string withoutCredentials(std::string_view url);

}  // namespace settings
