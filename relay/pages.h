// The relay's own pages, for people, browsers and monitoring.
#pragma once

#include <string>

#include "relay/context.h"
#include "relay/http_head.h"

namespace relay {

/// The whole response to a request in origin form. Requests whose Host is not loopback, or that
/// another site's page made, are refused: a web page cannot have a name of its own lead here.
Task<std::string> pageFor(Context& context, const RequestHead& request, const Peer& peer);

}  // namespace relay
