// Stands in for the one call that the fetcher makes into the service. Linking it leaves the real
// one out, and the service with it.
#pragma once

#include <functional>

class ProxyManagerServiceImpl;

/// A service pointer that may be handed to the fetcher; nothing follows it.
ProxyManagerServiceImpl* standInService();

/// How often it was told that a new script is in place.
int timesUpdated();
/// Waits until it was told `times` times, 60 s at most. @return whether it was
bool waitForUpdates(int times);
/// Does `hook` on the fetcher thread at each call from now on.
void onUpdate(std::function<void()> hook);
