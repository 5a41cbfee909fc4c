// Options and checks for all commands that call the daemon.
#pragma once

#include <CLI/App.hpp>
#include <chrono>
#include <optional>
#include <string>

namespace client {

/// The default time limit for an answer. An evaluation takes 5.25 s at most, and the question may
/// wait for another evaluation first. The remaining time is a reserve for a busy device.
inline constexpr std::chrono::seconds kAskLimit{15};

/// The default time limit for a change. A change never waits for a download. But it may wait for
/// the load of a script and for other calls.
inline constexpr std::chrono::seconds kChangeLimit{60};

/// Longest --timeout. In mode wpad, the daemon tries all candidate URLs in less than three hours.
inline constexpr std::chrono::hours kMaxLimit{24};

struct CallOptions {
  std::chrono::microseconds limit{};
  bool json = false;
  bool showPassword = false;
};

/// Adds --timeout with the default `limit` to `command`. It sets `options`, which must live as long
/// as `command`.
void addTimeout(CLI::App& command, CallOptions& options, std::chrono::seconds limit);

/// Adds --timeout and --json.
void addCallOptions(CLI::App& command, CallOptions& options, std::chrono::seconds limit);

/// Adds --show-password.
void addShowPassword(CLI::App& command, CallOptions& options);

/// Throws the parser's error if `text` cannot be sent over the bus. `name` is the name of the
/// argument.
void checkBusText(const char* name, const std::string& text);

/// Throws the parser's error if `url` is not valid in a question.
void checkAskedUrl(const std::string& url);

}  // namespace client
