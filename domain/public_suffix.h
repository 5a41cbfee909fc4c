// Whether anybody can register names under a name. Such a name gets no proxy lookup.
#pragma once

#include <string>

/// A name is a public suffix if one of two lists has it.
/// - The built-in rules with their markers: "*." stands for any one label; the parent of such a
///   rule counts, too ("uk" by "*.uk"); "!" excludes a name ("nls.uk"). Rules with bytes above 127
///   are never found.
/// - libpsl's built-in list, without its rule that every unknown top-level name counts, for names
///   that hold a dot.
///
/// The name is compared in lower case (ASCII), without trailing dots, and up to its first NUL, as a
/// resolver sees it. So:
/// - names with a dot: "co.uk", "github.io" and "foo.kobe.jp" are public suffixes; "example.com",
///   "city.kobe.jp" and "corp.lan" are not;
/// - single labels: "com" (a rule) and "uk" (the parent of a wildcard) are public suffixes. "lan"
///   is not. "search" and "xyz" are not either, because they are newer than the built-in list. A
///   search domain of a single label is the network's own choice. A caller that shortens a longer
///   name must itself stop before the last label;
/// - the empty name is no public suffix.
///
/// Any thread; never fails; logs nothing.
bool isPublicSuffix(const std::string& name);
