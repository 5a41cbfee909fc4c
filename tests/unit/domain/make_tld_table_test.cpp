// Tests make_tld_table, which the build runs to make the table of public suffixes. The tests give
// it their own lists.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using testing::HasSubstr;
using testing::Not;

class MakeTldTable : public testing::Test {
 protected:
  MakeTldTable() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "make_tld_table.XXXXXX").string();
    mFolder = mkdtemp(pattern.data());
  }
  ~MakeTldTable() override { std::filesystem::remove_all(mFolder); }

  /// @return the exit status; `header` receives the output file, and `complaint` the errors
  int make(const std::string& list) {
    std::ofstream(mFolder / "list", std::ios::binary) << list;
    return makeFrom(mFolder / "list");
  }
  int makeFrom(const std::filesystem::path& list) {
    const auto out = mFolder / "table.h";
    const auto errors = mFolder / "errors";
    const std::string command = std::string("'") + MAKE_TLD_TABLE + "' '" + list.string() + "' '" +
                                out.string() + "' 2>'" + errors.string() + "'";
    const int status = std::system(command.c_str());
    header = contents(out);
    complaint = contents(errors);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string header;
  std::string complaint;

 private:
  static std::string contents(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  std::filesystem::path mFolder;
};

TEST_F(MakeTldTable, SizesTheTableByTheNumberOfRules) {
  EXPECT_EQ(make("// comment\n\ncom\n*.uk trailing words\r\n!bl.uk\n"), 0);
  EXPECT_THAT(header, HasSubstr("kTldBuckets = 3;"));
  EXPECT_THAT(header, HasSubstr("std::uint16_t kTldBucketStart[kTldBuckets + 1]"));
  EXPECT_THAT(header, HasSubstr("kTldRules[16]"));
  EXPECT_THAT(header, HasSubstr("\"*.uk"));
  EXPECT_THAT(header, Not(HasSubstr("comment")));
  EXPECT_THAT(header, Not(HasSubstr("trailing")));
}

TEST_F(MakeTldTable, WidensTheOffsetsOfALongList) {
  std::string list;
  for (int i = 0; list.size() < 65535; ++i)
    list.append(std::to_string(100000 + i)).append(".tld\n");
  // Each rule has 11 bytes with its terminator.
  EXPECT_EQ(make(list.substr(0, 65535 / 11 * 11)), 0);
  EXPECT_THAT(header, HasSubstr("std::uint16_t kTldBucketStart"));
  EXPECT_EQ(make(list), 0);
  EXPECT_THAT(header, HasSubstr("std::uint32_t kTldBucketStart"));
}

TEST_F(MakeTldTable, WritesBytesBeyondAsciiAsOctal) {
  EXPECT_EQ(make("h\xc3\xb8nefoss.no\ncom\n"), 0);
  EXPECT_THAT(header, HasSubstr("h\\303\\270nefoss.no"));
}

TEST_F(MakeTldTable, MovesARuleBeyondAsciiWhoseBytesWouldFindIt) {
  // The hashes of U+00E9, of its two bytes and of "a" are odd. There are two buckets, so all three
  // belong to the second bucket.
  EXPECT_EQ(make("\xc3\xa9\na\n"), 0);
  EXPECT_THAT(header, HasSubstr("{\n    0, 3,\n    5};"));
}

TEST_F(MakeTldTable, MakesTheSameTableEachTime) {
  EXPECT_EQ(makeFrom(SUFFIX_LIST), 0);
  const std::string first = header;
  EXPECT_EQ(makeFrom(SUFFIX_LIST), 0);
  EXPECT_EQ(header, first);
  EXPECT_THAT(header, HasSubstr("kTldRules[44513]"));
}

TEST_F(MakeTldTable, RefusesAListThatIsNone) {
  EXPECT_EQ(makeFrom("/nonexistent/list"), 1);
  EXPECT_THAT(complaint, HasSubstr("/nonexistent/list: it has no rules"));
  EXPECT_EQ(make("// nothing but a comment\n"), 1);
  EXPECT_THAT(complaint, HasSubstr("it has no rules"));
  EXPECT_EQ(header, "");
}

TEST_F(MakeTldTable, RefusesARuleThatStandsTwice) {
  EXPECT_EQ(make("com\norg\ncom\n"), 1);
  EXPECT_THAT(complaint, HasSubstr("rule twice: com"));
}

TEST_F(MakeTldTable, RefusesWhatIsNotUtf8) {
  for (const char* bytes : {"\xff", "\xc3", "\xc3(", "\x80", "\xe2\x82", "\xf5\x80\x80\x80"}) {
    EXPECT_EQ(make(std::string("com\nx").append(bytes).append("\n")), 1) << bytes;
    EXPECT_THAT(complaint, HasSubstr("rule not UTF-8: x"));
  }
}

}  // namespace
