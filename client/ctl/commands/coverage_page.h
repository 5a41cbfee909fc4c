// A coverage as one page of HTML.
#pragma once

#include <string>

#include "client/ctl/commands/coverage.h"

namespace client {

/// A page that loads nothing and runs no script: the source with the hits at each line, and the
/// URLs with their answers. All texts from outside are escaped.
std::string coveragePage(const std::string& file, const InstrumentedScript& script,
                         const Coverage& coverage);

/// "12 of 15 (80 %)".
std::string shownShare(const Share& share);

/// What is known of a rule that was missed, in words.
std::string shownMiss(const InstrumentedScript& script, const MissedRule& rule);

}  // namespace client
