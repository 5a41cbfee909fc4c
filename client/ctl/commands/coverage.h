// What a list of URLs reaches in a PAC script.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/ctl/commands/traced_script.h"

namespace client {

/// A URL of the list and what the script answered.
struct CoveredUrl {
  std::string url;
  std::size_t times = 0;  ///< in the list
  std::optional<std::string> result;
  std::string error;  ///< if there is no result
  std::optional<std::size_t> decidedBy;
  bool isDifferent = false;  ///< watched, the script answered otherwise
};

/// A return that no URL of the list reached.
struct MissedRule {
  std::size_t place = 0;
  bool isDead = false;                ///< no URL at all can reach it
  std::string reachedBy;              ///< a URL made from the script that does, or empty
  std::string shadowedUrl;            ///< a URL made from the rule's own condition that does not
  std::optional<std::size_t> shadow;  ///< the return that answers that one
};

struct Share {
  std::size_t reached = 0;
  std::size_t all = 0;
};

struct Coverage {
  std::vector<PlaceCount> places;  ///< one for each place of the script, the load included
  std::vector<CoveredUrl> urls;
  std::vector<MissedRule> missed;
  Share statements;
  Share branches;  ///< two of each test, one of each case
  Share rules;     ///< the returns
};

/// Asks `script` for each URL once. Names and addresses are those of its options.
/// @param parser of the same script; makes URLs for the rules that are missed
Coverage coverageOf(TracedScript& script, pac_engine::Engine& parser, const std::string& file,
                    const std::vector<std::string>& urls);

}  // namespace client
