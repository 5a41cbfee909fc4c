// Lookups in the built-in public-suffix table by exact rules only, as this system has always done.
//
// The table is a snapshot of the Public Suffix List (https://publicsuffix.org), generated at build
// time (make_tld_table.cpp), and constant: nothing is parsed or allocated for it at run time.
// Markers ("*." and "!") are part of the stored rules and match only themselves; wildcards are not
// applied. public_suffix.h reads the same table as the list means it. Rules with bytes above 127
// are out of reach of every lookup.
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

/// @return non-zero if `name` counts as a public suffix: it is a plain rule, or a rule written with
///         its marker. Also if "*" with what follows the first dot (without that dot, so that no
///         ordinary name gets there) is a rule, and "!" with the name is one, too.
int isEffectiveTld(const std::string& name);

/// @return the longest suffix of `domain`, in whole labels and possibly the whole of it, that is an
///         effective TLD, in its original case; empty if none is. Trailing dots are left out.
std::string topLevelDomain(const std::string& domain);
