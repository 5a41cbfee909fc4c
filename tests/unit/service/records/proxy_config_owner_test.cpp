#include "service/records/proxy_config_owner.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace {

void fill(ProxyConfigOwner& owner) {
  owner->mode = wpad;
  owner->enableauth = true;
  owner->proxyurl = heapCopy("http://proxy:1");
  owner->pacurl = heapCopy("");
  owner->userName = heapCopy("user");
  owner->password = heapCopy("secret");
}

TEST(HeapCopy, KeepsAnEmptyTextEmptyAndANullNull) {
  const HeapText empty(heapCopy(""));
  ASSERT_NE(empty, nullptr);
  EXPECT_STREQ(empty.get(), "");
  EXPECT_EQ(heapCopy(nullptr), nullptr);
  const HeapText text(heapCopy("abc"));
  EXPECT_STREQ(text.get(), "abc");
  EXPECT_TRUE(logLines().empty());
}

// In runs with a sanitizer, the leak check reports memory that is not freed here.
TEST(ProxyConfigOwner, FreesItsStringsWithoutALine) {
  {
    ProxyConfigOwner owner;
    fill(owner);
    EXPECT_STREQ((*owner).password, "secret");
  }
  EXPECT_TRUE(logLines().empty());
}

TEST(ProxyConfigOwner, IsFreshAfterClear) {
  ProxyConfigOwner owner;
  fill(owner);
  owner.clear();
  EXPECT_EQ(owner->mode, off);
  EXPECT_FALSE(owner->enableauth);
  EXPECT_EQ(owner->proxyurl, nullptr);
  EXPECT_EQ(owner->pacurl, nullptr);
  EXPECT_EQ(owner->userName, nullptr);
  EXPECT_EQ(owner->password, nullptr);
}

TEST(ProxyConfigOwner, WorksWithTheRecordsOwnFunctions) {
  ProxyConfigOwner owner;
  fill(owner);
  cleanupProxyConfig(owner.get());
  EXPECT_EQ(owner->mode, wpad);
  EXPECT_EQ(owner->proxyurl, nullptr);
  owner->proxyurl = string2Char("a", 1);
  EXPECT_STREQ(owner->proxyurl, "a");
}

}  // namespace
