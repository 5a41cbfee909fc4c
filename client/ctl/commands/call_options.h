// What the commands that talk to the daemon have in common.
#pragma once

#include <CLI/App.hpp>
#include <chrono>
#include <optional>
#include <string>

namespace client {

/// How long an answer is waited for. A question is evaluated for 5.25 s at most, and may stand
/// behind another one; the rest is for a busy device. Only an update that waits for a download
/// holds it up for longer.
inline constexpr std::chrono::seconds kAskLimit{15};

/// How long a change is waited for. It waits for the download that is in progress: 30 s for each
/// server that does not answer, and two of them is what a network has that is not wholly broken.
inline constexpr std::chrono::seconds kChangeLimit{60};

/// Longest --timeout: a walk over all candidates takes less than three hours.
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

/// Throws the parser's error where `text` cannot travel over the bus; `name` is the argument's.
void checkBusText(const char* name, const std::string& text);

/// Throws the parser's error where `url` is none that can be asked about.
void checkAskedUrl(const std::string& url);

}  // namespace client
