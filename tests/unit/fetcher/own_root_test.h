// A test with its own /tmp and /usr/local. It enters them before a member of the test starts a
// thread.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/own_root.h"

class OwnRootTest : public testing::Test {
 protected:
  OwnRootTest() { enterOwnRoot(); }
};
