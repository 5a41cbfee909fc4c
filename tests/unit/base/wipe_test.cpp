#include "base/wipe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace {

TEST(Wipe, OverwritesACStringUpToItsTerminator) {
  std::array<char, 8> room = {'s', 'e', 'c', 'r', 'e', 't', '\0', 'x'};
  base::wipe(room.data());
  EXPECT_EQ(std::string_view(room.data(), 8), std::string_view("\0\0\0\0\0\0\0x", 8));
}

TEST(Wipe, AcceptsNull) {
  base::wipe(static_cast<char*>(nullptr));
  base::wipe(nullptr, 10);
}

// wipe() also overwrites the bytes that are left from a longer, earlier text.
TEST(Wipe, OverwritesAllThatAStringHasRoomFor) {
  std::string text(100, 's');
  const char* const bytes = text.data();
  text.resize(50);
  base::wipe(text);
  EXPECT_TRUE(text.empty());
  ASSERT_EQ(text.data(), bytes) << "the room is still the string's";
  EXPECT_TRUE(std::all_of(bytes, bytes + 100, [](char c) { return c == '\0'; }));
}

}  // namespace
