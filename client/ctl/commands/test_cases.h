// The cases of `pac test`: a plain file that states which answer a script shall give for which URL,
// in which simulated environment. Reading and comparing are functions of their arguments.
//
// One case a line:  URL [OPTIONS] -> ANSWER
// OPTIONS are those of `pac eval`: --host, --at, --tz, --resolve and --my-ip. A line of options
// alone holds for the cases below it, up to the next such line. Empty lines and lines that begin
// with "#" are skipped. A case is checked in an environment that is written down: a name without
// --resolve does not resolve, and the own address is 127.0.0.1 without --my-ip, so that no network
// decides a test.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/ctl/commands/simulated_environment.h"

namespace client {

/// Most cases of a file. Each costs 0.2 ms, with an environment of its own 10 ms.
inline constexpr std::size_t kMaxTestCases = 10'000;

/// What stands for "no answer" and for "an answer without entries" in a file of cases.
inline constexpr std::string_view kExpectsError = "(error)";
inline constexpr std::string_view kExpectsEmpty = "(empty)";

struct TestCase {
  std::size_t line = 0;  ///< of the file, from 1
  std::string url;
  std::optional<std::string> host;   ///< --host
  SimulatedEnvironment environment;  ///< complete: nothing of it comes from this device
  std::string expected;              ///< as comparableAnswer() gives it
};

/// The cases of `text`; `base` is the environment of the command line, which the lines of the file
/// refine: an option replaces the same option further out, --resolve the same name. Throws Failure
/// (kBadData), with `name` and the line, for a line that is not understood, for more than
/// kMaxTestCases, and if there is no case at all: a test of nothing must not pass.
std::vector<TestCase> parseTestCases(std::string_view text, const std::string& name,
                                     const SimulatedEnvironment& base);

/// `answer` with its entries separated by "; ", without blanks around them and without empty ones;
/// kExpectsEmpty if there is none. Texts that are equal then are the same answer to the daemon.
std::string comparableAnswer(std::string_view answer);

}  // namespace client
