#include "client/ctl/commands/script_on_trial.h"

#include <CLI/CLI.hpp>
#include <string_view>
#include <utility>

#include "base/ascii.h"
#include "base/log_line.h"
#include "client/ctl/terminal/script_file.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/ctl/terminal/url_parts.h"
#include "domain/url_host.h"
#include "pac/pac_parser.h"
#include "service/records/owned_settings.h"
#include "service/records/proxy_config_owner.h"

namespace client {

namespace {

/// While this object exists, the script's alerts are shown or dropped. Alerts are the only lines
/// that the library logs at LOG_DEBUG. The library returns all other facts to its caller.
class AlertsHeard {
 public:
  explicit AlertsHeard(Alerts alerts)
      : mMaskBefore(setlogmask(alerts == Alerts::kShown ? LOG_MASK(LOG_DEBUG) : 0)) {}
  ~AlertsHeard() { setlogmask(mMaskBefore); }
  AlertsHeard(const AlertsHeard&) = delete;
  AlertsHeard& operator=(const AlertsHeard&) = delete;

 private:
  int mMaskBefore;
};

}  // namespace

std::vector<ShownEntry> entriesOf(const std::string& result) {
  std::vector<ShownEntry> entries;
  std::string_view rest = result;
  for (;;) {
    const auto semicolon = rest.find(';');
    const auto piece = rest.substr(0, semicolon);
    if (const auto text = base::trimmed(piece, " \t\r\n"); !text.empty()) {
      OwnedSettings taken(PacParser::proxys2ProxySettings(std::string(piece)));
      entries.push_back({parseEntry(text), taken.get().empty()});
    }
    if (semicolon == std::string_view::npos) return entries;
    rest.remove_prefix(semicolon + 1);
  }
}

ShownAnswer evaluateUrl(pac_engine::Engine& engine, const std::string& url,
                        const std::optional<std::string>& givenHost, Alerts alerts) {
  ShownAnswer shown{withoutPassword(url), {}, givenHost.value_or(""), {}, {}, {}};
  const auto asked = canonicalOrGiven(url);
  if (!givenHost) {
    const HeapText host(getHost(asked));
    if (host == nullptr || std::string_view(host.get()) == "/") {
      shown.error = "the URL has no host; --host gives one";
      return shown;
    }
    shown.host = host.get();
  }
  const AlertsHeard heard(alerts);
  const auto reply = engine.evaluate(asked, shown.host);
  if (reply.result) {
    shown.result = *reply.result;
    shown.entries = entriesOf(*reply.result);
  } else {
    shown.error = pac_engine::describe(reply.problem);
  }
  return shown;
}

std::unique_ptr<pac_engine::Engine> loadScript(std::string_view script, pac_engine::Options options,
                                               pac_engine::Problem& refused, Alerts alerts) {
  const AlertsHeard heard(alerts);
  return pac_engine::Engine::load(script, std::move(options), refused);
}

Failure refusal(const std::string& file, const pac_engine::Problem& problem) {
  return {kRefused, shownName(file) + ": " + pac_engine::describe(problem)};
}

}  // namespace client
