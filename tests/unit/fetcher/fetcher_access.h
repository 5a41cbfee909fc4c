// Gives tests access to private parts of a fetcher.
#pragma once

#include "fetcher/pac_fetcher.h"

struct PACFetcherTestAccess {
  /// Runs a walk on this thread, in the same way as the fetcher thread.
  static int retrieve(PACFetcher& fetcher) {
    const Lock lock(fetcher.mMutex);
    return fetcher.retrievePacFile();
  }
  static int waitForChanges(PACFetcher& fetcher, int fd, int interval) {
    return fetcher.wait_for_changes(fd, interval);
  }
  /// Clears the fetcher's flag mRunning although its threads run.
  static void pretendStopped(PACFetcher& fetcher) { fetcher.mRunning = false; }
};
