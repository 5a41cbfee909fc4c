// The scripts that are measured, as networks have them.
#pragma once

#include <string>

namespace bench {

/// Gives one answer, whatever is asked.
std::string trivialScript();

/// A rule after the other, every second one a suffix of the host, every other a shell expression;
/// none fits the hosts that the benchmarks ask about.
std::string rulesScript(int rules);

/// A list of domains that is searched from its beginning to its end, as older scripts do.
std::string linearListScript(int domains);

/// The domains as the properties of an object, looked up label by label.
std::string hashScript(int domains);

/// What newer scripts are written in: const, arrow functions, templates, destructuring, Map, Set.
std::string modernScript();

/// Rules up to this many bytes.
std::string scriptOf(std::size_t bytes);

/// The answer of all these scripts if no rule fits.
inline constexpr const char* kAnswer = "PROXY proxy.test:8080; DIRECT";

}  // namespace bench
