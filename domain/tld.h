// Lookups in the built-in public-suffix table that compare rules exactly.
//
// The table is a snapshot of the Public Suffix List (https://publicsuffix.org). It is generated at
// build time (make_tld_table.cpp) and is constant: at run time, nothing is parsed or allocated for
// it. Markers ("*." and "!") are part of the stored rules and match only themselves; they do not
// work as wildcards and exceptions. isPublicSuffix() (public_suffix.h) does use them as wildcards
// and exceptions. No lookup finds a rule with bytes above 127.
//
// All functions are safe on any thread and never fail. They log lines at LOG_INFO, for example one
// line for each rule that they compare.
#pragma once

#include <string>

/// @param text NUL-terminated, not null
/// @return the bucket of `text`, below the number of rules; ASCII letter case makes no difference
unsigned tldhash(const char* text);

/// @param text NUL-terminated, not null
/// @return 1 if the table has a rule that equals `text` (ASCII letter case is ignored), else 0
int isInTldArray(const char* text);

/// @return non-zero if `name` counts as a public suffix. There are two cases. First: `name` equals
/// a stored rule, including the rule's marker. Second: two texts are both stored rules, "*"
/// followed by the part of `name` after its first dot, and "!" followed by `name`. The "*" of the
/// first text is not followed by a dot, so no ordinary name is in the second case.
int isEffectiveTld(const std::string& name);

/// @return the longest suffix of `domain` that is an effective TLD, without trailing dots, in its
///         original letter case. A suffix consists of whole labels and may be the whole `domain`.
///         Empty if no suffix is an effective TLD.
std::string topLevelDomain(const std::string& domain);
