// Makes a PAC script that sends traffic in the way that a document of proxy information describes.
#pragma once

#include <string>
#include <vector>

#include "client/ctl/commands/pvd_document.h"

namespace client::pvd {

struct Script {
  std::string text;
  std::vector<std::string> warnings;  ///< parts of the document that the script cannot express
  std::string error;                  ///< the reason if `text` is empty
};

/// Makes the script for `document`.
/// @param otherwise the script's answer if no rule matches and each proxy of the document has an
/// identifier (a proxy without one accepts any traffic). For example "DIRECT" or "PROXY
/// known.example.org:8080"
Script scriptOf(const Document& document, const std::string& otherwise);

/// The entry that a script returns for this proxy, "PROXY host:port" or "SOCKS host:port". Empty if
/// no entry can express this proxy, or if the daemon's clients do not use such an entry.
std::string entryOf(const Proxy& proxy);

}  // namespace client::pvd
