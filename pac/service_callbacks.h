// The function of the service that the parser calls. service/callbacks.cpp implements it; tests
// replace it.
#pragma once

class ProxyManagerServiceImpl;

namespace service_callbacks {

/// Reports to the service that the content of the script has changed. Does nothing if `service` is
/// null. Called on the fetcher thread, which installs the script. During the call, the parser holds
/// mAnswerGate exclusively and no other lock.
void notifyContentUpdated(ProxyManagerServiceImpl* service);

}  // namespace service_callbacks
