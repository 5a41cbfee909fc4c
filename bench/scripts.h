// The scripts that the benchmarks use. They are similar to scripts of real networks.
#pragma once

#include <string>

namespace bench {

/// A script that gives the same answer to every question.
std::string trivialScript();

/// A sequence of rules. Every second rule uses a shell expression; the other rules compare a suffix
/// of the host. No rule matches the hosts that the benchmarks ask about.
std::string rulesScript(int rules);

/// A script with a list of domains. Like older scripts, it searches the list from its beginning to
/// its end.
std::string linearListScript(int domains);

/// A script with an object whose properties are the domains. It looks up a host label by label.
std::string hashScript(int domains);

/// A script with newer parts of the language: const, arrow functions, templates, destructuring,
/// Map, Set.
std::string modernScript();

/// A script with as many rules as fit into `bytes` bytes.
std::string scriptOf(std::size_t bytes);

/// The answer of all these scripts if no rule matches.
inline constexpr const char* kAnswer = "PROXY proxy.test:8080; DIRECT";

}  // namespace bench
