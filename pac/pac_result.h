// Parses a script's result text: "PROXY a:1; SOCKS b:2; DIRECT" becomes a list of entries.
//
// The members of PacParser that have the same purpose call these functions. The functions log under
// the names of those members. Any thread. They throw std::bad_alloc.
#pragma once

#include <string>

#include "service/records/proxy_config.h"

namespace script_result {

/// Maximum number of pieces (texts between ";") that are read of a result text. Unknown pieces
/// count, too. A program tries the entries one after the other, and no network has so many proxies
/// for one host.
inline constexpr int kMaxResultPieces = 64;

/// The entries of a result text. Unknown pieces are left out. If there are more than
/// kMaxResultPieces pieces, the rest is dropped, with a LOG_WARNING line. The caller owns the
/// texts and releases them with cleanupProxySetting().
ProxyUrlSettings entriesOf(const std::string& proxys);

/// One entry: type 1 "DIRECT", 2 "PROXY ...", 3 "SOCKS ...", else 0 without a text. Blanks and
/// tabs before it are ignored. The caller owns its text and releases it with
/// cleanupProxySetting().
ProxyUrlSetting entryOf(std::string proxy);

}  // namespace script_result
