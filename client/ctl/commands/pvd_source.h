// Where a document of proxy information comes from: a file, or the one server that is named.
#pragma once

#include <optional>
#include <string>

namespace client::pvd {

/// How long a document is waited for, and how many redirects are followed: as for a script.
inline constexpr long kFetchSeconds = 30;
inline constexpr long kMaxRedirects = 5;

struct Source {
  std::string text;
  std::optional<std::string> host;  ///< of the server that gave it
  std::string warning;              ///< a sentence, or empty
};

/// The URL of the document of a proxy: "https://HOST/.well-known/pvd", on port 443 whatever the
/// proxy's own port is.
std::string wellKnownUrl(const std::string& host);

/// Reads what `name` names: "-", standard input; a URL; a file, if there is one of this name or the
/// name has a "/"; else the host of a proxy, with or without its port. From the network it fetches
/// that one document, once, by https alone and without a proxy.
/// Throws Failure: kUsage for a URL that is not https and what is no host, kNoInput if it cannot be
/// read or fetched, kRefused if it is too long.
Source readSource(const std::string& name);

}  // namespace client::pvd
