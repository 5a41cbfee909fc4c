// The administrator's settings: what a settings file may hold, and how a text is read.
//
// The format is TOML. Each key may be absent; a later file replaces single keys of an earlier one.
// An unknown key, a value of the wrong kind or an impossible value is a problem with its line: a
// misspelt key must not leave a device without its proxy silently.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/configuration.h"

namespace settings {

/// Longest text of a key's value, in bytes: longer than any URL that a server takes.
inline constexpr std::size_t kMaxValueBytes = 8U << 10U;
/// Longest settings file that is read, in bytes. The commented example has under 4 KiB.
inline constexpr std::size_t kMaxFileBytes = 64U << 10U;
/// Shortest time between two refreshes: each costs a download for the whole device.
inline constexpr std::chrono::seconds kMinRefresh{60};
/// Longest time between two refreshes.
inline constexpr std::chrono::seconds kMaxRefresh{std::chrono::hours{24 * 365}};

/// Which sources count.
enum class Source {
  kAuto,    ///< the file if it sets a mode, else the network, else the fallback
  kFile,    ///< the file alone
  kNetwork  ///< network managers alone
};

/// What one file sets, or all of them together.
struct FileSettings {
  std::optional<Source> source;
  std::optional<Mode> mode;
  std::optional<std::string> proxyUrl;
  std::optional<std::string> pacUrl;
  std::optional<std::string> user;
  std::optional<std::string> password;            ///< in the file itself
  std::optional<std::string> passwordFile;        ///< absolute path
  std::optional<std::string> passwordCredential;  ///< name of a systemd credential
  std::optional<Mode> fallback;                   ///< kOff or kWpad
  std::optional<std::chrono::seconds> refresh;    ///< 0: never
  std::optional<bool> networkDirectIsOff;         ///< network-direct = "off"
  std::optional<bool> findProxyAll;               ///< find-proxy = "all"

  bool operator==(const FileSettings&) const = default;
};

/// What is wrong with a file.
struct Problem {
  unsigned line = 0;  ///< from 1; 0 if the problem is the file itself
  std::string text;   ///< one printable line

  bool operator==(const Problem&) const = default;
};

struct ReadSettings {
  FileSettings settings;          ///< what was understood
  std::vector<Problem> problems;  ///< empty if all was understood
};

/// Reads the text of one settings file. Never throws but bad_alloc.
ReadSettings readSettings(std::string_view text);

/// Puts what `later` sets over what `settings` holds. A later password of any kind replaces an
/// earlier one of another kind.
void overlay(FileSettings& settings, const FileSettings& later);

/// A duration: a whole number with "s", "m", "h" or "d", or 0 alone; from kMinRefresh to
/// kMaxRefresh. Nothing for any other text.
std::optional<std::chrono::seconds> parseRefresh(std::string_view text);

/// Why `url` cannot be a PAC URL (http or https, with a host, printable ASCII), or an empty text.
std::string pacUrlProblem(std::string_view url);

/// Why `url` cannot be a manual proxy, or an empty text.
std::string proxyUrlProblem(std::string_view url);

}  // namespace settings
