// The result of a load or an evaluation. The worker's engine reports it to the worker, and the
// library reports it to its caller.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace pac_engine {

/// The reason why a script is refused or has no answer.
struct Problem {
  std::string message;     ///< one line, for example "SyntaxError: unexpected token"
  std::uint32_t line = 0;  ///< line of the script, from 1; 0 if no line is known
};

/// An answer, or the reason why there is none.
struct Reply {
  std::optional<std::string> result;  ///< ASCII text that the script returned
  Problem problem;                    ///< set if there is no result
};

}  // namespace pac_engine
