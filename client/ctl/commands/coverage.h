// Finds which parts of a PAC script a list of URLs reaches.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/ctl/commands/traced_script.h"

namespace client {

/// A URL of the list, and the script's answer for it.
struct CoveredUrl {
  std::string url;
  std::size_t times = 0;  ///< how often it is in the list
  std::optional<std::string> result;
  std::string error;  ///< the reason if there is no result
  std::optional<std::size_t> decidedBy;
  bool isDifferent = false;  ///< the instrumented script answered differently
};

/// A return statement that no URL of the list reached.
struct MissedRule {
  std::size_t place = 0;
  bool isDead = false;      ///< no URL at all can reach it
  std::string reachedBy;    ///< a URL that was made from the script and reaches this rule; or empty
  std::string shadowedUrl;  ///< a URL that was made for this rule but is answered by another rule
  std::optional<std::size_t> shadow;  ///< the return that answers this URL
  /// True if a URL that was made for this rule reached the rule's test, or was not tried, or was
  /// answered after a question about a name, an address or the time. In these cases it is unknown
  /// whether another rule shadows this rule.
  bool mayBeReached = false;
};

/// The time limit for all URLs that are made from a script. The last URL can exceed this limit. If
/// it leads to an endless loop, the unchanged script and the instrumented script take 5 s each.
inline constexpr std::chrono::seconds kMadeTime{8};

struct Share {
  std::size_t reached = 0;
  std::size_t all = 0;
};

struct Coverage {
  /// One element for each place of the script. The counts include the load of the script.
  std::vector<PlaceCount> places;
  std::vector<CoveredUrl> urls;
  std::vector<MissedRule> missed;
  std::size_t made = 0;  ///< number of the made URLs that were tried
  bool madeCut = false;  ///< some URLs that can be made were not tried
  bool ownText = false;  ///< the script has read the text of a function
  Share statements;
  Share branches;  ///< a test has two branches, a case of a switch has one
  Share rules;     ///< the returns
};

/// Asks `script` once for each URL. The options of `script` set the names and addresses that the
/// script sees. For URLs that are made from the script, the function looks up no name and shows no
/// alert.
/// @param parser a parser of the same script; it makes URLs for missed rules
Coverage coverageOf(TracedScript& script, pac_engine::Engine& parser, const std::string& file,
                    const std::vector<std::string>& urls);

}  // namespace client
