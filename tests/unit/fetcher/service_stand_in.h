// Stands in for the one call that the fetcher makes into the service. Linking it leaves the real
// one out, and the service with it.
#pragma once

#include <functional>

class ProxyManagerServiceImpl;

/// A service pointer that may be handed to the fetcher; nothing follows it.
ProxyManagerServiceImpl* standInService();

/// The number of calls that report a new script.
int timesUpdated();
/// Waits for `times` such calls, 60 s at most. @return whether they came
bool waitForUpdates(int times);
/// Runs `hook` on the fetcher thread at each call from now on.
void onUpdate(std::function<void()> hook);
