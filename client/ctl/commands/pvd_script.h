// A PAC script that sends traffic as a document of proxy information says.
#pragma once

#include <string>
#include <vector>

#include "client/ctl/commands/pvd_document.h"

namespace client::pvd {

struct Script {
  std::string text;
  std::vector<std::string> warnings;  ///< what of the document it does not say
  std::string error;                  ///< why there is none, if the text is empty
};

/// @param otherwise the script's answer for what no rule matches, if the document has no proxy for
/// any traffic: "DIRECT", "PROXY known.example.org:8080"
Script scriptOf(const Document& document, const std::string& otherwise);

/// The entry of a script that means this proxy, "PROXY host:port" or "SOCKS host:port"; empty if
/// there is none.
std::string entryOf(const Proxy& proxy);

}  // namespace client::pvd
