// Parses a script's result text: "PROXY a:1; SOCKS b:2; DIRECT" becomes a list of entries.
//
// Member functions of PacParser call these functions. The log lines contain the names of those
// member functions. Any thread. They throw std::bad_alloc.
#pragma once

#include <string>

#include "service/records/proxy_config.h"

namespace script_result {

/// Maximum number of pieces (texts between ";") that are read from a result text. Unknown pieces
/// count, too. A program tries the entries one after the other, and no network has this many
/// proxies for one host.
inline constexpr int kMaxResultPieces = 64;

/// The entries of a result text. Unknown pieces are left out. If there are more than
/// kMaxResultPieces pieces, the rest is dropped, with a LOG_WARNING line. The caller owns the
/// texts and releases them with cleanupProxySetting().
ProxyUrlSettings entriesOf(const std::string& proxys);

/// One entry. Its type is 1 for "DIRECT", 2 for "PROXY ...", 3 for "SOCKS ...". For any other text,
/// the type is 0 and the entry has no text. Blanks and tabs before the entry are ignored. The
/// caller owns the text of the entry and releases it with cleanupProxySetting().
ProxyUrlSetting entryOf(std::string proxy);

}  // namespace script_result
