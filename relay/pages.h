// The relay's own pages, for people, browsers and monitoring.
#pragma once

#include <string>

#include "relay/context.h"
#include "relay/http_head.h"

namespace relay {

/// The whole response to a request in origin form. The relay refuses a request whose Host is not
/// loopback, and a request that a page of another site made. Otherwise, a web page could reach
/// these pages through a host name that resolves to loopback.
Task<std::string> pageFor(Context& context, const RequestHead& request, const Peer& peer);

}  // namespace relay
