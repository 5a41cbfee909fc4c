// A coverage report as one HTML page.
#pragma once

#include <string>
#include <vector>

#include "client/ctl/commands/coverage.h"

namespace client {

/// The page shows the source with the hits of each line, and the URLs with their answers. It loads
/// nothing and runs no script. All texts from outside are escaped.
std::string coveragePage(const std::string& file, const InstrumentedScript& script,
                         const Coverage& coverage);

/// Notes for people: the parts of the script that are not instrumented, whether the script can
/// notice the instrumentation, and whether some of the made URLs were not tried.
std::vector<std::string> coverageNotes(const InstrumentedScript& script, const Coverage& coverage);

/// The share as a text: "12 of 15 (80 %)".
std::string shownShare(const Share& share);

/// Describes in words what is known about a missed rule.
std::string shownMiss(const InstrumentedScript& script, const MissedRule& rule);

}  // namespace client
