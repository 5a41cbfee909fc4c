// The URLs in the access log of a proxy. Pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace client {

/// The URL that a line of a log or of a list names; empty if there is none.
///
/// It is the line itself if it has no blank in it. Else it is what follows a method such as GET, as
/// in the logs of squid (its own form and the common one) and tinyproxy; a host and port behind
/// CONNECT is an https URL. In a line of proxymanager-relay it is the destination: of a request an
/// http URL, of a tunnel an https URL, and of a failure an https URL if the port is 443.
std::string urlOfLine(std::string_view line);

/// The URLs of a whole log, in order. The log may also be the relay's page status.json, whose
/// decisions name the destinations.
std::vector<std::string> urlsOfLog(std::string_view log);

}  // namespace client
