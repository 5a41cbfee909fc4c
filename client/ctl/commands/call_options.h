// What the commands that talk to the daemon have in common.
#pragma once

#include <CLI/App.hpp>
#include <chrono>
#include <optional>
#include <string>

namespace client {

/// The default time limit for an answer. An evaluation takes 5.25 s at most, and the question may
/// wait for another evaluation first; the rest is a reserve for a busy device.
inline constexpr std::chrono::seconds kAskLimit{15};

/// The default time limit for a change. A change never waits for a download, but it may wait behind
/// a load of a script and behind other calls.
inline constexpr std::chrono::seconds kChangeLimit{60};

/// Longest --timeout. A walk over all candidates takes less than three hours.
inline constexpr std::chrono::hours kMaxLimit{24};

struct CallOptions {
  std::chrono::microseconds limit{};
  bool json = false;
  bool showPassword = false;
};

/// Adds --timeout to `command`, which sets `options`, living as long as it does; `limit` holds by
/// default.
void addTimeout(CLI::App& command, CallOptions& options, std::chrono::seconds limit);

/// Adds --timeout and --json.
void addCallOptions(CLI::App& command, CallOptions& options, std::chrono::seconds limit);

/// Adds --show-password.
void addShowPassword(CLI::App& command, CallOptions& options);

/// Throws the parser's error if the bus cannot carry `text`; `name` is the name of the argument.
void checkBusText(const char* name, const std::string& text);

/// Throws the parser's error if `url` is not valid in a question.
void checkAskedUrl(const std::string& url);

}  // namespace client
