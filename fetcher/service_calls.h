// What the fetcher asks of the service, apart from everything else: its tests link without one.
#pragma once

class ProxyManagerServiceImpl;

namespace fetcher {

/// Tells the service that a new script is in place. Called on the fetcher thread with the fetcher's
/// mutex held; must not come back into the fetcher.
void pacFileUpdated(ProxyManagerServiceImpl& service);

}  // namespace fetcher
