// Replaces the only function of the service that the fetcher calls. A test that is linked with this
// file needs neither the real function nor the service.
#pragma once

#include <functional>

class ProxyManagerServiceImpl;

/// A pointer that can be passed to the fetcher as its service. No code dereferences it.
ProxyManagerServiceImpl* standInService();

/// The number of calls that report a new script.
int timesUpdated();
/// Waits until there were `times` such calls, 60 s at most. @return whether there were so many
/// calls
bool waitForUpdates(int times);
/// From now on, runs `hook` on the fetcher thread at each call.
void onUpdate(std::function<void()> hook);
