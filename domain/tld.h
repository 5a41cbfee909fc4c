// Lookups in the built-in public-suffix table by exact rules only, as this system has always done.
//
// The table is a snapshot of the Public Suffix List (https://publicsuffix.org), generated at build
// time (make_tld_table.cpp), and constant: nothing is parsed or allocated for it at run time.
// Markers ("*." and "!") are part of the stored rules and match only themselves; wildcards are not
// applied. public_suffix.h applies the same table with wildcards and exceptions. No lookup finds a
// rule with bytes above 127.
//
// All functions are safe on any thread and never fail. They log lines at LOG_INFO, among them one
// for each rule that they compare.
#pragma once

#include <string>

/// @param text NUL-terminated, not null
/// @return the bucket of `text`, below the number of rules; ASCII letter case makes no difference
unsigned tldhash(const char* text);

/// @param text NUL-terminated, not null
/// @return 1 if the table holds a rule equal to `text` ignoring ASCII case, else 0
int isInTldArray(const char* text);

/// @return non-zero if `name` counts as a public suffix. This is so if `name` equals a stored rule,
/// with its marker if the rule has one. It is also so if two other texts are both stored rules: "*"
/// with the part of `name` after its first dot, and "!" with `name`. The first of these texts has
/// no dot after "*", so no ordinary name fulfils the second condition.
int isEffectiveTld(const std::string& name);

/// @return the longest suffix of `domain`, in whole labels and possibly the whole of it, that is an
///         effective TLD, in its original case; empty if no suffix is one. No trailing dots.
std::string topLevelDomain(const std::string& domain);
