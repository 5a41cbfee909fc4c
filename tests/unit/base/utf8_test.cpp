#include "base/utf8.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>

namespace {

using base::isUtf8;
using base::utf8CharacterAt;
using base::utf8Head;

// The rule of RFC 3629 in the other direction: encodes a code point in its only form.
std::string encoded(char32_t code) {
  const auto byte = [](char32_t value) { return static_cast<char>(value); };
  if (code < 0x80) return {byte(code)};
  if (code < 0x800) return {byte(0xC0 | code >> 6U), byte(0x80 | (code & 0x3FU))};
  if (code < 0x10000) {
    return {byte(0xE0 | code >> 12U), byte(0x80 | (code >> 6U & 0x3FU)),
            byte(0x80 | (code & 0x3FU))};
  }
  return {byte(0xF0 | code >> 18U), byte(0x80 | (code >> 12U & 0x3FU)),
          byte(0x80 | (code >> 6U & 0x3FU)), byte(0x80 | (code & 0x3FU))};
}

TEST(Utf8, ReadsEveryCodePointInItsOneForm) {
  for (char32_t code = 0; code <= 0x10FFFF; ++code) {
    const std::string text = encoded(code);
    const auto character = utf8CharacterAt(text, 0);
    ASSERT_EQ(character.length, text.size()) << std::hex << static_cast<unsigned>(code);
    ASSERT_EQ(character.code, code);
    ASSERT_EQ(isUtf8(text), code < 0xD800 || code > 0xDFFF);
  }
}

// A text of up to three bytes is a character only if it is the encoding of a code point. If the
// first byte is an ASCII character, or the second byte does not continue a character, only four
// values of the third byte are tested.
TEST(Utf8, TakesNoOtherBytesForACharacter) {
  std::size_t wellFormed = 0;
  std::string text(3, '\0');
  for (unsigned value = 0; value < 1U << 24U; ++value) {
    for (unsigned i = 0; i < 3; ++i) text[i] = static_cast<char>(value >> (8 * (2 - i)) & 0xFFU);
    const bool anyThird = value < 0x800000U || !base::isUtf8Continuation(text[1]);
    if (anyThird && value % 0x40U != 0) continue;
    const auto character = utf8CharacterAt(text, 0);
    if (character.length == 3) ++wellFormed;
    if (character.length == 0) continue;
    ASSERT_EQ(encoded(character.code), text.substr(0, character.length)) << value;
  }
  EXPECT_EQ(wellFormed, 0x10000U - 0x800U);
}

TEST(Utf8, EndsAtTheLastCodePoint) {
  EXPECT_TRUE(isUtf8("\xf4\x8f\xbf\xbf"));
  EXPECT_FALSE(isUtf8("\xf4\x90\x80\x80"));
  EXPECT_FALSE(isUtf8("\xf5\x80\x80\x80"));
  EXPECT_FALSE(isUtf8("\xf0\x8f\xbf\xbf")) << "a form that is too long";
  EXPECT_FALSE(isUtf8("\xf0\x9f\x98")) << "incomplete";
  EXPECT_TRUE(isUtf8(""));
}

TEST(Utf8, KnowsTheNoncharacters) {
  EXPECT_TRUE(base::isNoncharacter(0xFDD0) && base::isNoncharacter(0xFDEF));
  EXPECT_TRUE(base::isNoncharacter(0xFFFE) && base::isNoncharacter(0x10FFFF));
  EXPECT_FALSE(base::isNoncharacter(0xFDCF) || base::isNoncharacter(0xFDF0));
  EXPECT_FALSE(base::isNoncharacter(0xFFFD) || base::isNoncharacter(0x10000));
}

TEST(Utf8Head, EndsBetweenCharacters) {
  const std::string text = "a\xc3\xa4\xf0\x9f\x98\x80";
  EXPECT_EQ(utf8Head(text, 0), "");
  EXPECT_EQ(utf8Head(text, 1), "a");
  EXPECT_EQ(utf8Head(text, 2), "a");
  EXPECT_EQ(utf8Head(text, 3), "a\xc3\xa4");
  EXPECT_EQ(utf8Head(text, 4), "a\xc3\xa4");
  EXPECT_EQ(utf8Head(text, 6), "a\xc3\xa4");
  EXPECT_EQ(utf8Head(text, 7), text);
  EXPECT_EQ(utf8Head(text, 8), text);
}

TEST(Utf8Head, LosesLittleOfBytesThatAreNoText) {
  const std::string bytes(100, '\x80');
  EXPECT_EQ(utf8Head(bytes, 50).size(), 47U);
  EXPECT_EQ(utf8Head(bytes, 2).size(), 0U);
}

}  // namespace
