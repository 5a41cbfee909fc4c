// Whether anybody can register names under a name. No proxy may be looked for there.
#pragma once

#include <string>

/// Two lists are asked, and one yes is enough.
/// - The built-in rules, read as the list means them: "*." stands for any one label, the parent of
///   such a rule counts too ("uk" by "*.uk"), and "!" excludes a name again ("nls.uk"). Rules with
///   bytes above 127 are never found.
/// - libpsl's built-in list, without its rule that every unknown top-level name counts, for names
///   that hold a dot.
///
/// The name is compared in lower case (ASCII), without trailing dots, and up to its first NUL, as a
/// resolver sees it. So:
/// - a name with a dot: "co.uk", "github.io" and "foo.kobe.jp" are, "example.com",
///   "city.kobe.jp" and "corp.lan" are not;
/// - a single label: "com" (a rule) and "uk" (a wildcard's parent) are; "lan" is not, nor is
///   "search" or "xyz", which came after the built-in list: a whole search domain of one label is
///   the network's own choice. A caller that shortens a longer name stops before the last label
///   itself, whatever it is;
/// - the empty name is not.
///
/// Any thread; never fails; logs nothing.
bool isPublicSuffix(const std::string& name);
