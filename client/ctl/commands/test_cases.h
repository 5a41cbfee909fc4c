// The cases of `pac test`: a text file with the expected answer for each URL in a simulated
// environment. Reading and comparing are pure functions.
//
// One case a line:  URL [OPTIONS] -> ANSWER
// OPTIONS are the options of `pac eval`: --host, --at, --tz, --resolve and --my-ip. A line that has
// only options applies to the cases after it, up to the next such line. Empty lines and lines that
// start with "#" are skipped. A case does not depend on the network: a name without --resolve does
// not resolve, and the own address is 127.0.0.1 without --my-ip.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/ctl/commands/simulated_environment.h"

namespace client {

/// Maximum number of cases of a file. A case takes 0.2 ms, or 10 ms if its environment differs from
/// the environment of the previous case.
inline constexpr std::size_t kMaxTestCases = 10'000;

/// The texts for "no answer" and for "an answer without entries" in a file of cases.
inline constexpr std::string_view kExpectsError = "(error)";
inline constexpr std::string_view kExpectsEmpty = "(empty)";

struct TestCase {
  std::size_t line = 0;  ///< in the file, from 1
  std::string url;
  std::optional<std::string> host;   ///< --host
  SimulatedEnvironment environment;  ///< complete; clock and zone may come from the device
  std::string expected;              ///< in the form of comparableAnswer()
};

/// The cases of `text`. `base` is the environment of the command line. The lines of the file refine
/// it: an option replaces the same option of the command line or of earlier lines, and --resolve
/// replaces only the same name. Throws Failure (kBadData), with `name` and the line, for a line
/// that cannot be parsed and for more than kMaxTestCases cases. Also throws it if there is no case,
/// because a test of nothing must not pass.
std::vector<TestCase> parseTestCases(std::string_view text, const std::string& name,
                                     const SimulatedEnvironment& base);

/// `answer` with "; " between its entries, without blanks around them and without empty entries. It
/// is kExpectsEmpty if there are no entries. If this text is the same for two results of a script,
/// the daemon gives the same answer for both.
std::string comparableAnswer(std::string_view answer);

}  // namespace client
