// The base class of tests with their own /tmp and /usr/local. It enters them before a member of the
// test starts a thread. Tests that compare whole logs give the same result on a kernel without
// Landlock, on which the first download of a process logs one more line.
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
