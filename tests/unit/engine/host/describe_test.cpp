#include <gtest/gtest.h>

#include "engine/pac_engine.h"

namespace {

using pac_engine::describe;

TEST(Describe, NamesTheLineWhereOneIsKnown) {
  EXPECT_EQ(describe({"Error: x", 3}), "line 3: Error: x");
  EXPECT_EQ(describe({"Error: x", 0}), "Error: x");
}

}  // namespace
