// The URLs in the access log of a proxy. Pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace client {

/// The URL that a line of a log or of a list names; empty if there is none.
///
/// A line without a blank is the URL itself. In the logs of squid (its own format and the common
/// log format) and tinyproxy, the URL follows a method such as GET. A host and port after CONNECT
/// become an https URL. In a line of proxymanager-relay, the destination becomes the URL. Its
/// scheme is http for a request and https for a tunnel. For a failure, the scheme is https if the
/// port is 443, else http.
std::string urlOfLine(std::string_view line);

/// The URLs of a whole log, in order. The log may also be the relay's page status.json, whose
/// decisions name the destinations.
std::vector<std::string> urlsOfLog(std::string_view log);

}  // namespace client
