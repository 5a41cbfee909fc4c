// Whether a name is a public suffix: anybody can register names under it. The fetcher does not look
// for a script on the host "wpad" directly below such a name.
#pragma once

#include <string>

/// A name is a public suffix if one of two lists has it.
/// - The built-in rules with their markers. "*." stands for any single label. The parent of such a
///   rule is a public suffix, too (because of "*.uk", "uk" is one). "!" makes an exception
///   ("!nls.uk"). Rules with bytes above 127 are never found.
/// - libpsl's built-in list, for names that contain a dot. The library's rule that every unknown
///   top-level name is a public suffix is not used.
///
/// The name is compared in lower case (ASCII), without trailing dots, and up to its first NUL, as a
/// resolver sees it. So:
/// - names with a dot: "co.uk", "github.io" and "foo.kobe.jp" are public suffixes; "example.com",
///   "city.kobe.jp" and "corp.lan" are not;
/// - single labels: "com" (a rule) and "uk" (the parent of a wildcard) are public suffixes. "lan"
///   is not. "search" and "xyz" are no public suffixes either, because they are newer than the
///   built-in list. The network may have chosen an unknown single label as its search domain. A
///   caller that shortens a longer name must itself stop before the last label;
/// - the empty name is no public suffix.
///
/// Any thread; never fails; logs nothing.
bool isPublicSuffix(const std::string& name);
