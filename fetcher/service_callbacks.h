// The function of the service that the fetcher calls. service/callbacks.cpp implements it; tests
// replace it.
#pragma once

class ProxyManagerServiceImpl;

namespace service_callbacks {

/// Reports to the service that a new script file is in place. Does nothing if `service` is null.
/// Called on the fetcher thread with the fetcher's mutex held; must not call the fetcher.
/// @return whether the script is in use now; false if it is refused
bool notifyFileUpdated(ProxyManagerServiceImpl* service);

}  // namespace service_callbacks
