#include "client/ctl/commands/call_options.h"

#include <CLI/CLI.hpp>
#include <charconv>

#include "client/library/asked_url.h"
#include "client/library/bus_text.h"
#include "client/library/include/proxymanager/client.h"

namespace client {

namespace {

constexpr const char* kTimeout = "--timeout";

std::chrono::microseconds limitOf(const std::string& text) {
  double seconds = 0;
  const auto* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
  const std::chrono::duration<double> given(seconds);
  const auto limit =
      std::chrono::duration_cast<std::chrono::microseconds>(given <= kMaxLimit ? given : kMaxLimit);
  if (error != std::errc() || rest != end || !(given <= kMaxLimit) || limit.count() <= 0) {
    throw CLI::ValidationError(kTimeout,
                               "\"" + text + "\" is no number of seconds above 0 and up to 86400");
  }
  return limit;
}

}  // namespace

void addTimeout(CLI::App& command, CallOptions& options, std::chrono::seconds limit) {
  options.limit = limit;
  command
      .add_option_function<std::string>(
          kTimeout, [&options](const std::string& text) { options.limit = limitOf(text); },
          "Time limit for each answer of the\ndaemon; by default " + std::to_string(limit.count()))
      ->option_text("SECONDS");
}

void addCallOptions(CLI::App& command, CallOptions& options, std::chrono::seconds limit) {
  addTimeout(command, options, limit);
  command.add_flag("--json", options.json, "Print JSON instead of text for people");
}

void addShowPassword(CLI::App& command, CallOptions& options) {
  command.add_flag("--show-password", options.showPassword,
                   "Show passwords, also those in URLs,\ninstead of \"***\"");
}

void checkBusText(const char* name, const std::string& text) {
  if (!isBusText(text)) throw CLI::ValidationError(name, "it is no text in UTF-8");
}

void checkAskedUrl(const std::string& url) {
  checkBusText("URL", url);
  if (url.size() > PROXYMANAGER_MAX_URL) {
    throw CLI::ValidationError("URL", "it is longer than 65535 bytes");
  }
  if (askedUrl(url)) return;
  const bool hasMark = url.find("://") != std::string::npos;
  throw CLI::ValidationError(
      "URL", hasMark ? "it is no URL: no scheme stands before \"://\""
                     : "a password may be in it; a URL with \"@\" needs its scheme and \"://\"");
}

}  // namespace client
