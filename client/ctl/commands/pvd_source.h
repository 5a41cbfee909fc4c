// Reads a document of proxy information: from a file, or from the server that the user names.
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
  std::optional<std::string> host;  ///< the server that sent the document
  std::string warning;              ///< a sentence, or empty
};

/// The URL of a proxy's document: "https://HOST/.well-known/pvd". The port is always 443, even if
/// the proxy itself has another port.
std::string wellKnownUrl(const std::string& host);

/// Reads the document that `name` describes. "-" is standard input. A URL is the place of the
/// document. Any other name is a file if this file exists or if the name has a "/". Else it is the
/// host of a proxy, with or without a port. From the network, the function fetches only this
/// document, once, by https and without a proxy. Throws Failure: kUsage for a URL that is not https
/// and for a text that is no host, kNoInput if the document cannot be read or fetched, kRefused if
/// the document is too long.
Source readSource(const std::string& name);

}  // namespace client::pvd
