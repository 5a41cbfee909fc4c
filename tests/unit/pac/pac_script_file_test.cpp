#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "pac/pac_parser.h"
#include "tests/support/log_capture.h"
#include "tests/unit/pac/recorded_notices.h"
#include "tests/unit/pac/script_on_disk.h"

namespace {

using Texts = std::vector<std::string>;

const char* kUpdated = "PacParser-readPacFile content of pac file has been updated, notify";
const char* kSame = "PacParser-readPacFile contents of old and new pac files are the same";

Texts textsOf(PacParser& parser, const std::string& url) {
  const auto answers = parser.shareAnswers();
  Texts texts;
  for (const auto& entry : parser.getProxy(url)) texts.emplace_back(entry.url);
  return texts;
}

std::vector<LogLine> contractLines() {
  auto lines = logLines();
  std::erase_if(lines, [](const LogLine& line) { return line.text.starts_with("pac_engine"); });
  return lines;
}

class ScriptFile : public testing::Test {
 protected:
  void parse() { mParser.parsePacFile(mFile.path()); }

  ScriptOnDisk mFile{scriptFor("PROXY p:1")};
  PacParser mParser{nullptr, false};
};

TEST_F(ScriptFile, SaysItsLinesWhenTheContentIsNew) {
  const std::string& name = mFile.path();
  clearLog();
  parse();
  EXPECT_EQ(
      contractLines(),
      (std::vector<LogLine>{
          {LOG_INFO, "PacParser-parsePacFile called "},
          {LOG_INFO, "PacParser-readPacFile called "},
          {LOG_NOTICE, "PacParser-readPacFile PAC file name:" + name},
          {LOG_INFO, "PacParser-doMd5Hash called "},
          {LOG_NOTICE, kUpdated},
          {LOG_INFO, "PacParser-clearProxyUrlCache called "},
          {LOG_INFO, "clearCache called "},
          {LOG_NOTICE, "PacParser-readPacFile content of pac file: \n" + scriptFor("PROXY p:1")},
          {LOG_INFO, "PacParser-parsePacFile pac init"},
      }));
  EXPECT_EQ(noticesOfContent(), 1);
}

TEST_F(ScriptFile, TheSameContentKeepsTheCacheButReplacesTheEngine) {
  mFile.write("var n = 0; function FindProxyForURL(u, h) { n++; return 'PROXY n' + n + ':1'; }");
  parse();
  EXPECT_EQ(textsOf(mParser, "http://a/"), Texts{"PROXY n1:1"});
  EXPECT_EQ(textsOf(mParser, "http://b/"), Texts{"PROXY n2:1"});
  clearLog();
  parse();
  EXPECT_TRUE(logged(LOG_NOTICE, kSame));
  EXPECT_TRUE(logged(LOG_INFO, "PacParser-parsePacFile pac init"));
  EXPECT_EQ(noticesOfContent(), 1);
  EXPECT_EQ(textsOf(mParser, "http://a/"), Texts{"PROXY n1:1"}) << "the cached answer";
  EXPECT_EQ(textsOf(mParser, "http://c/"), Texts{"PROXY n1:1"})
      << "a fresh engine counts from the beginning";
}

TEST_F(ScriptFile, NewContentEmptiesTheCache) {
  parse();
  textsOf(mParser, "http://a/");
  mFile.write(scriptFor("PROXY q:2"));
  parse();
  EXPECT_EQ(textsOf(mParser, "http://a/"), Texts{"PROXY q:2"});
  EXPECT_EQ(noticesOfContent(), 2);
}

TEST_F(ScriptFile, AnEmptyFileMakesNoEngineAndSaysNothingOfSameness) {
  mFile.write("");
  clearLog();
  parse();
  EXPECT_EQ(contractLines(),
            (std::vector<LogLine>{
                {LOG_INFO, "PacParser-parsePacFile called "},
                {LOG_INFO, "PacParser-readPacFile called "},
                {LOG_NOTICE, "PacParser-readPacFile PAC file name:" + mFile.path()},
                {LOG_INFO, "PacParser-doMd5Hash called "},
                {LOG_INFO, "string2Char: input is null, or length:0 <= 0"},
                {LOG_NOTICE, "PacParser-readPacFile content of pac file: \n(null)"},
                {LOG_INFO, "PacParser-parsePacFile pac init"},
                {LOG_ERR, "PacParser-parsePacFile pac init, mpac is null"},
            }));
}

TEST_F(ScriptFile, ReadsFilesAroundTheSizeOfTheBuffer) {
  for (const std::size_t size : {8191U, 8192U, 8193U, 16384U, 500'000U}) {
    std::string text = scriptFor("PROXY p:" + std::to_string(size % 60000));
    text += "//" + std::string(size - text.size() - 2, 'x');
    ASSERT_EQ(text.size(), size);
    mFile.write(text);
    clearLog();
    parse();
    EXPECT_TRUE(logged(LOG_NOTICE, "PacParser-readPacFile content of pac file: \n" + text));
    EXPECT_EQ(textsOf(mParser, "http://a/"), Texts{"PROXY p:" + std::to_string(size % 60000)});
  }
}

TEST_F(ScriptFile, AnEmptyNameIsRefused) {
  clearLog();
  EXPECT_EQ(mParser.parsePacFile(""), 0);
  EXPECT_EQ(logLines(), (std::vector<LogLine>{
                            {LOG_INFO, "PacParser-parsePacFile called "},
                            {LOG_ERR, "PacParser-parsePacFile error pac file name is empty"}}));
}

TEST_F(ScriptFile, AMissingFileKeepsEngineAndText) {
  parse();
  clearLog();
  EXPECT_EQ(mParser.parsePacFile(mFile.folder() + "/none"), 0);
  EXPECT_EQ(logLines(),
            (std::vector<LogLine>{
                {LOG_INFO, "PacParser-parsePacFile called "},
                {LOG_INFO, "PacParser-readPacFile called "},
                {LOG_NOTICE, "PacParser-readPacFile PAC file name:" + mFile.folder() + "/none"},
                {LOG_ERR, "PacParser-readPacFile error opening file " + mFile.folder() + "/none"},
                {LOG_ERR, "PacParser-parsePacFile failed to read pac file name"}}));
  EXPECT_EQ(textsOf(mParser, "http://a/"), Texts{"PROXY p:1"});
}

TEST_F(ScriptFile, AFailedReadKeepsTheEngineButReplacesAndSaysTheText) {
  parse();
  clearLog();
  EXPECT_EQ(mParser.parsePacFile(mFile.folder()), 0);  // a folder can be opened, but not read
  EXPECT_EQ(
      logLines(),
      (std::vector<LogLine>{
          {LOG_INFO, "PacParser-parsePacFile called "},
          {LOG_INFO, "PacParser-readPacFile called "},
          {LOG_NOTICE, "PacParser-readPacFile PAC file name:" + mFile.folder()},
          {LOG_ERR, "PacParser-readPacFile error reading from file " + mFile.folder() + ", rc:-1"},
          {LOG_INFO, "string2Char: input is null, or length:0 <= 0"},
          {LOG_NOTICE, "PacParser-readPacFile content of pac file: \n(null)"},
          {LOG_ERR, "PacParser-parsePacFile failed to read pac file name"}}));
  EXPECT_EQ(textsOf(mParser, "http://a/"), Texts{"PROXY p:1"});
}

TEST_F(ScriptFile, ARefusedScriptLeavesNoEngine) {
  parse();
  textsOf(mParser, "http://a/");
  mFile.write("this is no script");
  clearLog();
  parse();
  EXPECT_TRUE(logged(LOG_ERR, "PacParser-parsePacFile pac init, mpac is null"));
  EXPECT_EQ(textsOf(mParser, "http://a/"), Texts{});
  EXPECT_TRUE(
      logged(LOG_WARNING, "PacParser-getProxy mPac is empty, may casued by pac file update"));
}

TEST_F(ScriptFile, ALinkAFifoAndAnotherUsersFileAreNotRead) {
  const std::string link = mFile.folder() + "/link";
  ASSERT_EQ(symlink(mFile.path().c_str(), link.c_str()), 0);
  const std::string fifo = mFile.folder() + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  Texts planted{link, fifo};
  if (getuid() == 0) {
    const std::string foreign = mFile.folder() + "/foreign";
    ASSERT_EQ(close(open(foreign.c_str(), O_CREAT | O_WRONLY, 0644)), 0);
    ASSERT_EQ(chown(foreign.c_str(), 12345, 12345), 0);
    planted.push_back(foreign);
  }
  for (const auto& name : planted) {
    EXPECT_EQ(mParser.readPacFile(name), 0);
    EXPECT_TRUE(logged(LOG_ERR, "PacParser-readPacFile error opening file " + name));
  }
}

// The digest is compared as a C string, so two digests that begin with a zero byte are equal.
TEST_F(ScriptFile, DigestsThatAgreeUpToAZeroByteAreTheSame) {
  Texts scripts;
  for (int i = 0; scripts.size() < 2; ++i) {
    const std::string text = scriptFor("PROXY p:" + std::to_string(i));
    unsigned char digest[PacParser::kDigestLength];
    ASSERT_TRUE(PacParser::doMd5Hash(digest, text.data(), text.size()));
    if (digest[0] == 0) scripts.push_back(text);
  }
  mFile.write(scripts[0]);
  parse();
  textsOf(mParser, "http://a/");
  mFile.write(scripts[1]);
  clearLog();
  parse();
  EXPECT_TRUE(logged(LOG_NOTICE, kSame));
  EXPECT_EQ(countLog(LOG_NOTICE, kUpdated), 0);
  EXPECT_EQ(noticesOfContent(), 1);
}

TEST(Md5, AgreesWithThePublishedExample) {
  // RFC 1321, A.5: the digest of "abc".
  unsigned char digest[PacParser::kDigestLength];
  ASSERT_TRUE(PacParser::doMd5Hash(digest, "abc", 3));
  const unsigned char expected[] = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2, 0x4f, 0xb0,
                                    0xd6, 0x96, 0x3f, 0x7d, 0x28, 0xe1, 0x7f, 0x72};
  EXPECT_EQ(std::vector<unsigned char>(std::begin(digest), std::end(digest)),
            std::vector<unsigned char>(std::begin(expected), std::end(expected)));
}

TEST(Md5, LeavesTheDigestAloneWithoutData) {
  unsigned char digest[PacParser::kDigestLength] = {7};
  EXPECT_FALSE(PacParser::doMd5Hash(digest, nullptr, 3));
  EXPECT_FALSE(PacParser::doMd5Hash(digest, "abc", 0));
  EXPECT_FALSE(PacParser::doMd5Hash(nullptr, "abc", 3));
  EXPECT_EQ(digest[0], 7);
}

TEST(ReleaseCallback, DoesNothingWithoutAContext) {
  ProxyUrlSettings settings = PacParser::proxys2ProxySettings("DIRECT");
  clearLog();
  PacParser::clearProxyUrlCacheCallBack(settings, nullptr);
  EXPECT_EQ(settings.size(), 1U);
  EXPECT_EQ(logLines(),
            (std::vector<LogLine>{{LOG_INFO, "PacParser-clearProxyUrlCacheCallBack called "}}));
  int context = 0;
  PacParser::clearProxyUrlCacheCallBack(settings, &context);
  EXPECT_TRUE(settings.empty());
}

}  // namespace
