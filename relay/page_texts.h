// The texts of the relay's pages, made from a report. Pure functions, for any thread.
#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "relay/decisions.h"

namespace relay {

/// One proxy that is tried last for a while.
struct PenaltyReport {
  std::string entry;
  std::string reason;
  std::chrono::seconds rest{0};  ///< until it is tried in its turn again
};

/// What the pages show one user.
struct Report {
  std::string mode;                               ///< of the daemon; empty if it does not answer
  std::string source;                             ///< of the mode's answers; empty if not known
  std::string problem;                            ///< why it does not answer; else empty
  std::optional<std::chrono::seconds> scriptAge;  ///< of the script in force
  std::vector<PenaltyReport> penalties;
  Counters counters;
  std::size_t asked = 0;    ///< questions with the daemon
  std::size_t waiting = 0;  ///< questions that wait for their turn
  bool isUserKnown = false;
  std::vector<Decision> decisions;  ///< of this user, of all for root
  std::string askedUrl;             ///< which way for this URL? Empty: nobody asked
  std::vector<std::string> way;     ///< the entries in the order to be tried, or why there are none
};

/// The page for people, HTML without scripts.
std::string htmlOf(const Report& report);
/// Its style.
const char* pageStyle();
/// The same as JSON.
std::string jsonOf(const Report& report);
/// Counters in OpenMetrics text; nothing of any user.
std::string metricsOf(const Report& report);
/// A script for browsers that names the relay at `place`, "127.0.0.1:3128".
std::string scriptFor(const std::string& place);
/// `text` for HTML, in elements and in attributes.
std::string escaped(const std::string& text);
/// The value of `name` in a query "a=b&c=d", decoded; at most 8192 bytes. Nothing if it is not
/// there.
std::optional<std::string> queryValue(std::string_view query, std::string_view name);

}  // namespace relay
