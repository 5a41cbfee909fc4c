#include "base/daemon_status.h"

#include <gtest/gtest.h>

namespace {

using base::DaemonStatus;
using base::describe;
using base::parseDaemonStatus;

const DaemonStatus kFull{"wpad", 1763800000, 1763800001, 1763800002, "script from a.example: b; c"};

void expectReadAgain(const DaemonStatus& status) {
  const auto read = parseDaemonStatus(describe(status));
  ASSERT_TRUE(read) << describe(status);
  EXPECT_EQ(read->mode, status.mode);
  EXPECT_EQ(read->updated, status.updated);
  EXPECT_EQ(read->script, status.script);
  EXPECT_EQ(read->walked, status.walked);
  EXPECT_EQ(read->result, status.result);
  EXPECT_EQ(read->walking, status.walking);
}

TEST(DaemonStatusLine, IsALineForPeople) {
  EXPECT_EQ(describe(kFull),
            "mode wpad, updated 2025-11-22T08:26:40Z; script of 2025-11-22T08:26:41Z; "
            "last walk 2025-11-22T08:26:42Z: script from a.example: b; c");
  EXPECT_EQ(describe({"off", 0, 0, 0, {}}), "mode off, never updated; no script; no walk");
  EXPECT_EQ(describe({"wpad", 1763800000, 0, 0, {}, 1763800007}),
            "mode wpad, updated 2025-11-22T08:26:40Z; no script; "
            "walking since 2025-11-22T08:26:47Z");
}

TEST(DaemonStatusLine, IsReadAsItWasMeant) {
  expectReadAgain(kFull);
  expectReadAgain({"off", 0, 0, 0, {}});
  expectReadAgain({"manual", 1763800000, 0, 0, {}});
  expectReadAgain({"pacurl", 1763800000, 0, 1763800002, {}});
  expectReadAgain({"pacurl", 1763800000, 0, 0, {}, 1763800007});
  expectReadAgain({"pacurl", 1763800000, 1763800001, 1763800002, "no script: a; b", 1763800007});
}

TEST(DaemonStatusLine, OfAnotherProgramIsNone) {
  const std::string line = describe(kFull);
  for (std::size_t length = 0; length < line.find("script from"); ++length) {
    EXPECT_FALSE(parseDaemonStatus(line.substr(0, length))) << line.substr(0, length);
  }
  EXPECT_FALSE(parseDaemonStatus("proxymanagerd runs"));
  EXPECT_FALSE(parseDaemonStatus("mode off, updated yesterday; no script; no walk"));
  EXPECT_FALSE(parseDaemonStatus("mode off, never updated; no script; no walk "));
  const std::string walking = "mode off, never updated; no script; walking since ";
  EXPECT_FALSE(parseDaemonStatus(walking));
  EXPECT_FALSE(parseDaemonStatus(walking + "2025-11-22T08:26:47Z; no walk"));
}

}  // namespace
