// The base class of tests with their own /tmp and /usr/local. The class enters them before a member
// of the test starts a thread. On a kernel without Landlock, the first download of a process logs
// one more line. The class leaves this line out of the captured log, so that tests that compare
// whole logs give the same result.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/own_root.h"
#include "tests/unit/fetcher/landlock.h"

class OwnRootTest : public testing::Test {
 protected:
  OwnRootTest() {
    enterOwnRoot();
    if (!kernelHasLandlock()) leaveOutOfLog(kNoLandlockLine);
  }
};
