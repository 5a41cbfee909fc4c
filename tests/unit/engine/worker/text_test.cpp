#include <gtest/gtest.h>

#include "engine/worker/script_text.h"
#include "engine/worker/utf8.h"

namespace pac_worker {
namespace {

using std::string_literals::operator""s;

TEST(ScriptText, IsUtf8WithOrWithoutBom) {
  EXPECT_EQ(decodeScript("a=1"), "a=1");
  EXPECT_EQ(decodeScript("\xEF\xBB\xBF"
                         "a=1"),
            "a=1");
  EXPECT_EQ(decodeScript("'\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80'"),
            "'\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80'");
  EXPECT_EQ(decodeScript(""), "");
}

TEST(ScriptText, IsLatin1WhereItIsNoUtf8) {
  EXPECT_EQ(decodeScript("'\xE4\xFF\x80'"), "'\xC3\xA4\xC3\xBF\xC2\x80'");
  EXPECT_EQ(decodeScript("\xC3\xA4\xE4"), "\xC3\x83\xC2\xA4\xC3\xA4") << "all of it, or nothing";
}

TEST(ScriptText, EndsAtANulByte) {
  EXPECT_EQ(decodeScript("a=1\0b=2"s), "a=1");
  EXPECT_EQ(decodeScript("\xC3\xA4\0\xFF"s), "\xC3\xA4") << "what follows does not make it Latin-1";
  EXPECT_EQ(decodeScript("\0"s), "");
}

TEST(ScriptText, HasOneKindOfLineEnd) {
  EXPECT_EQ(decodeScript("a\rb\r\nc\nd\r\r\n\r"), "a\nb\nc\nd\n\n\n");
}

TEST(Utf8, BecomesOnePrintableLine) {
  EXPECT_EQ(printableLine("a\nb\tc\x7F\xC2\x85"
                          "d\xE2\x80\xA8"
                          "e",
                          100),
            "a b c  d e");
  EXPECT_EQ(printableLine("a\xFF\xED\xA0\x80z", 100), "a??z");
  EXPECT_EQ(printableLine("\xE2\x82\xAC\xE2\x82\xAC", 5), "\xE2\x82\xAC");
}

TEST(Utf8, GivesUtf16Units) {
  EXPECT_EQ(utf16Units("a\xC3\xA4\xE2\x82\xAC"), u"a\u00e4\u20ac");
  EXPECT_EQ(utf16Units("\xF0\x9F\x98\x80"), (std::u16string{0xD83D, 0xDE00}));
  EXPECT_EQ(utf16Units("\xED\xA0\xBD"), (std::u16string{0xD83D})) << "an unpaired surrogate";
  EXPECT_EQ(utf16Units("\xFF"
                       "a"),
            u"\uFFFDa");
}

}  // namespace
}  // namespace pac_worker
