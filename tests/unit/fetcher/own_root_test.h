// A test with its own /tmp and /usr/local. It enters them before a member of the test starts a
// thread.
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
