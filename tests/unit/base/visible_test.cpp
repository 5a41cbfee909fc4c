#include "base/visible.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "base/utf8.h"

namespace {

using base::visible;

TEST(Visible, ShowsControlCharactersAndLeavesText) {
  EXPECT_EQ(visible("a b\xc3\xa4"), "a b\xc3\xa4");
  EXPECT_EQ(visible("a\nb\tc"), "a\\x0ab\\x09c");
  EXPECT_EQ(visible(std::string_view("\0\x1b[2J\x7f", 6)), "\\x00\\x1b[2J\\x7f");
}

TEST(Visible, ShowsControlCharactersBeyondAscii) {
  EXPECT_EQ(visible("a\xc2\x9b"
                    "b"),
            "a\\x9bb");
  EXPECT_EQ(visible("\xc2\x80\xc2\x9f\xc2\xa0"), "\\x80\\x9f\xc2\xa0");
}

TEST(Visible, ShowsCharactersThatChangeTheDirectionOfTheText) {
  EXPECT_EQ(visible("a\u202egpj.exe\u202c"), "a\\u{202e}gpj.exe\\u{202c}");
  EXPECT_EQ(visible("\u061c"), "\\u{061c}");
  for (const char* text : {"\u200e", "\u200f", "\u2028", "\u2029", "\u202a", "\u2066", "\u2069"})
    EXPECT_TRUE(visible(text).starts_with("\\u{2")) << visible(text);
  constexpr const char* kOthers = "\u061b\u200d\u2010\u2027\u202f\u2065\u206a";
  EXPECT_EQ(visible(kOthers), kOthers);
}

TEST(Visible, ShowsBytesThatAreNoCharacter) {
  EXPECT_EQ(visible("\x9b[2J"), "\\x9b[2J");
  EXPECT_EQ(visible("\xe2\x82\xac\x9b"), "\xe2\x82\xac\\x9b");
  EXPECT_EQ(visible("\xf0\x9f\x98\x80"), "\xf0\x9f\x98\x80");
  EXPECT_EQ(visible("\xc3"
                    "a\x85"),
            "\\xc3a\\x85");
  EXPECT_EQ(visible("\xff"), "\\xff");
  EXPECT_EQ(visible("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "a surrogate";
}

TEST(Visible, ShowsCharactersInFormsTooLong) {
  EXPECT_EQ(visible("\xe0\x82\x9b"), "\\xe0\\x82\\x9b");
  EXPECT_EQ(visible("\xf0\x80\x82\x9b"), "\\xf0\\x80\\x82\\x9b");
  EXPECT_EQ(visible("\xe0\xa4\x85\xf0\x90\x8d\x88"), "\xe0\xa4\x85\xf0\x90\x8d\x88");
}

TEST(Visible, IsTextWithoutControlCharactersWhateverItWas) {
  for (unsigned value = 0; value < 1U << 16U; ++value) {
    const std::string text = {static_cast<char>(value >> 8U), static_cast<char>(value & 0xFFU)};
    const std::string shown = visible(text);
    ASSERT_TRUE(base::isUtf8(shown)) << value;
    ASSERT_EQ(visible(shown), shown) << "what is shown is shown once: " << value;
  }
}

}  // namespace
