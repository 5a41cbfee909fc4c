// Whether a name is one under which anybody can register names: where no proxy may be looked for.
#pragma once

#include <string>

/// Two lists are asked, and one yes is enough.
/// - The built-in rules, read as the list means them: "*." stands for any one label, the parent of
///   such a rule counts too ("uk" by "*.uk"), and "!" takes a name out again ("nls.uk"). Rules with
///   bytes above 127 stay out of reach.
/// - libpsl's built-in list, without its rule that every unknown top-level name counts, for names
///   that hold a dot.
///
/// The name is seen in lower case (ASCII), without trailing dots, and up to its first NUL, as
/// whoever resolves it sees it. So:
/// - a name with a dot: "co.uk", "github.io" and "foo.kobe.jp" are, "example.com",
///   "city.kobe.jp" and "corp.lan" are not;
/// - a single label: "com" (a rule) and "uk" (a wildcard's parent) are; "lan" is not, nor is
///   "search" or "xyz", which came after the built-in list: a whole search domain of one label is
///   the network's own affair. A caller that walks up from a longer name stops before the last
///   label by itself, whatever it is;
/// - the empty name is not.
///
/// Any thread; never fails; says no line.
bool isPublicSuffix(const std::string& name);
