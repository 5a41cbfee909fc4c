// Reads a document of proxy information: from a file, or from the one given server.
#pragma once

#include <optional>
#include <string>

namespace client::pvd {

/// Time limit of the download, in seconds, and maximum number of redirects. A script has the same
/// limits.
inline constexpr long kFetchSeconds = 30;
inline constexpr long kMaxRedirects = 5;

struct Source {
  std::string text;
  std::optional<std::string> host;  ///< the server that sent it
  std::string warning;              ///< a sentence, or empty
};

/// The URL of a proxy's document: "https://HOST/.well-known/pvd". The port is always 443, whatever
/// the proxy's own port is.
std::string wellKnownUrl(const std::string& host);

/// Reads the document that `name` describes: "-" is standard input; then a URL; then a file, if one
/// exists or the name has a "/"; else the host of a proxy, with or without a port. From the
/// network, it fetches this one document, once, only by https and without a proxy.
/// Throws Failure: kUsage for a URL that is not https and for a text that is no host, kNoInput if
/// it cannot be read or fetched, kRefused if it is too long.
Source readSource(const std::string& name);

}  // namespace client::pvd
