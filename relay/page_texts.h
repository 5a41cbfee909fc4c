// The texts of the relay's pages, made from a report. Pure functions, for any thread.
#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "relay/decisions.h"

namespace relay {

/// A proxy that has a penalty: the relay tries it last.
struct PenaltyReport {
  std::string entry;
  std::string reason;
  std::chrono::seconds rest{0};  ///< remaining time of the penalty
};

/// The data that the relay's pages show to one user.
struct Report {
  std::string mode;     ///< the daemon's mode; empty if the daemon does not answer
  std::string source;   ///< the source of the answers; empty if not known
  std::string problem;  ///< why the daemon does not answer; else empty
  std::optional<std::chrono::seconds> scriptAge;  ///< the age of the script in use
  std::vector<PenaltyReport> penalties;
  Counters counters;
  std::size_t asked = 0;    ///< questions that were sent to the daemon and are not answered
  std::size_t waiting = 0;  ///< questions that wait in the queue
  bool isUserKnown = false;
  std::vector<Decision> decisions;  ///< the user's decisions; for root, the decisions of all users
  std::string askedUrl;             ///< the URL that the user asks the page about; empty if none
  std::vector<std::string> way;     ///< the entries for askedUrl, in order, or why there are none
};

/// The page for people: HTML without scripts.
std::string htmlOf(const Report& report);
/// The style sheet of the page.
const char* pageStyle();
/// The report as JSON.
std::string jsonOf(const Report& report);
/// The counters in the OpenMetrics text format. The text has no information about users.
std::string metricsOf(const Report& report);
/// A PAC script for browsers that names the relay at `place`, for example "127.0.0.1:3128".
std::string scriptFor(const std::string& place);
/// `text` escaped for HTML, for elements and attributes.
std::string escaped(const std::string& text);
/// The decoded value of `name` in a query "a=b&c=d", at most 8192 bytes. Nothing if the query has
/// no `name`.
std::optional<std::string> queryValue(std::string_view query, std::string_view name);

}  // namespace relay
