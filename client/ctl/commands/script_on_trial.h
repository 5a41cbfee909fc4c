// Loads a PAC script that a command tries out, and evaluates it for a URL.
#pragma once

#include <CLI/App.hpp>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/ctl/commands/answer_json.h"
#include "client/ctl/failure.h"
#include "engine/pac_engine.h"

namespace client {

/// The exit statuses that every command that loads a script may have.
inline constexpr std::initializer_list<ExitStatus> kScriptStatuses{kRefused, kUsage, kNoInput,
                                                                   kOutput};

/// Whether the alerts of a script go to standard error and to syslog, or nowhere.
enum class Alerts { kShown, kDropped };

/// Loads `script`, the bytes of a PAC file.
/// @return null if the script is refused, with the reason in `refused`
std::unique_ptr<pac_engine::Engine> loadScript(std::string_view script, pac_engine::Options options,
                                               pac_engine::Problem& refused,
                                               Alerts alerts = Alerts::kShown);

/// The failure that ends a command because its script `file` is refused.
Failure refusal(const std::string& file, const pac_engine::Problem& problem);

/// Asks the script about the canonical form of `url`. Programs ask the daemon about the same form.
/// The script's second argument is `givenHost` if it is set, else the host that the daemon finds in
/// the canonical form.
ShownAnswer evaluateUrl(pac_engine::Engine& engine, const std::string& url,
                        const std::optional<std::string>& givenHost,
                        Alerts alerts = Alerts::kShown);

/// The entries of a script's result. The daemon's own parser decides which entries the daemon
/// drops.
std::vector<ShownEntry> entriesOf(const std::string& result);

}  // namespace client
