#include "base/ascii.h"

#include <gtest/gtest.h>

#include <clocale>

namespace {

TEST(Ascii, IsToldFromOtherBytes) {
  EXPECT_TRUE(base::isAscii(""));
  EXPECT_TRUE(base::isAscii("a\x7f"));
  EXPECT_FALSE(base::isAscii("a\x80"));
  EXPECT_FALSE(base::isAscii("\xff"));
}

TEST(Ascii, FoldsItsLettersAndNothingElse) {
  EXPECT_EQ(base::lowerCase("@AZ[`az{09"), "@az[`az{09");
  EXPECT_EQ(base::lowerCase("\xc3\x84\xdf"), "\xc3\x84\xdf");
  EXPECT_TRUE(base::equalIgnoringCase("PROXY", "pRoXy"));
  EXPECT_FALSE(base::equalIgnoringCase("PROXY", "PROX"));
  EXPECT_FALSE(base::equalIgnoringCase("@", "`"));
}

// In Turkish, the lower case of I is not i, and some C libraries implement this.
TEST(Ascii, DoesNotDependOnTheLocale) {
  setlocale(LC_ALL, "tr_TR.UTF-8");
  EXPECT_EQ(base::lowerCase('I'), 'i');
  setlocale(LC_ALL, "C");
}

TEST(Ascii, HasClassesThatEndWhereTheySay) {
  EXPECT_TRUE(base::isDigit('0') && base::isDigit('9'));
  EXPECT_FALSE(base::isDigit('/') || base::isDigit(':'));
  EXPECT_TRUE(base::isLetter('a') && base::isLetter('z') && base::isLetter('A'));
  EXPECT_FALSE(base::isLetter('@') || base::isLetter('[') || base::isLetter('`') ||
               base::isLetter('{') || base::isLetter('\xe4'));
  EXPECT_TRUE(base::isControl('\0') && base::isControl('\x1f') && base::isControl('\x7f'));
  EXPECT_FALSE(base::isControl(' ') || base::isControl('~') || base::isControl('\x80'));
}

TEST(Ascii, ReadsHexadecimalDigitsOfBothCases) {
  EXPECT_EQ(base::hexValue('0'), 0);
  EXPECT_EQ(base::hexValue('9'), 9);
  EXPECT_EQ(base::hexValue('a'), 10);
  EXPECT_EQ(base::hexValue('F'), 15);
  EXPECT_EQ(base::hexValue('g'), -1);
  EXPECT_EQ(base::hexValue('/'), -1);
  EXPECT_EQ(base::hexValue('\xe1'), -1);
}

TEST(Trimmed, LosesBlanksAtItsEndsOnly) {
  EXPECT_EQ(base::trimmed(" \ta b\t "), "a b");
  EXPECT_EQ(base::trimmed(" \t"), "");
  EXPECT_EQ(base::trimmed(""), "");
  EXPECT_EQ(base::trimmed("a\n"), "a\n");
  EXPECT_EQ(base::trimmed("'a'", "'"), "a");
}

}  // namespace
