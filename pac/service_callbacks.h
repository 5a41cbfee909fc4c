// What the parser calls in the service. service/callbacks.cpp implements it; tests replace it.
#pragma once

class ProxyManagerServiceImpl;

namespace service_callbacks {

/// The content of the script has changed. Does nothing if `service` is null. Called on the thread
/// that installs the script (the fetcher's). During the call, the gate is the only lock of the
/// parser that is held.
void notifyContentUpdated(ProxyManagerServiceImpl* service);

}  // namespace service_callbacks
