#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <utility>
#include <vector>

#include "pac/pac_parser.h"
#include "tests/support/log_capture.h"

namespace {

using Entries = std::vector<std::pair<int, std::string>>;

Entries parsed(const std::string& text) {
  ProxyUrlSettings settings = PacParser::proxys2ProxySettings(text);
  Entries entries;
  for (const auto& setting : settings) entries.emplace_back(setting.type, setting.url);
  PacParser::clearProxySettings(settings);
  return entries;
}

TEST(PacResult, KeepsTheEntriesInTheirOrder) {
  EXPECT_EQ(parsed("PROXY a:1; PROXY b:2; DIRECT"),
            (Entries{{2, "PROXY a:1"}, {2, "PROXY b:2"}, {1, "DIRECT"}}));
}

TEST(PacResult, TakesSocks) {
  EXPECT_EQ(parsed("SOCKS s:1080"), (Entries{{3, "SOCKS s:1080"}}));
}

TEST(PacResult, DropsDirectFollowedByABlank) {
  EXPECT_EQ(parsed("DIRECT "), Entries{});
}

TEST(PacResult, TakesDirectAfterABlankOrATab) {
  EXPECT_EQ(parsed(" DIRECT"), (Entries{{1, "DIRECT"}}));
  EXPECT_EQ(parsed("\t DIRECT"), (Entries{{1, "DIRECT"}}));
}

TEST(PacResult, DropsProxyWithoutABlank) {
  EXPECT_EQ(parsed("PROXY"), Entries{});
}

TEST(PacResult, DropsKeywordsInLowerCaseAndUnknownOnes) {
  EXPECT_EQ(parsed("proxy a:1"), Entries{});
  EXPECT_EQ(parsed("direct"), Entries{});
  EXPECT_EQ(parsed("HTTPS a:1; SOCKS5 b:2"), Entries{});
}

TEST(PacResult, KeepsSeveralBlanksAndTrailingOnes) {
  EXPECT_EQ(parsed("PROXY   a:1  ;DIRECT"), (Entries{{2, "PROXY   a:1  "}, {1, "DIRECT"}}));
}

TEST(PacResult, MakesNothingOfEmptyPieces) {
  EXPECT_EQ(parsed(""), Entries{});
  EXPECT_EQ(parsed(";;"), Entries{});
  EXPECT_EQ(parsed("DIRECT;;DIRECT;"), (Entries{{1, "DIRECT"}, {1, "DIRECT"}}));
  EXPECT_EQ(parsed("   "), Entries{});
}

TEST(PacResult, KeepsTheKeywordAloneWithItsBlank) {
  EXPECT_EQ(parsed("PROXY "), (Entries{{2, "PROXY "}}));
}

TEST(PacResult, SaysEachPieceWithItsLine) {
  clearLog();
  parsed("PROXY a:1;SOCKS b:2");
  EXPECT_EQ(logLines(),
            (std::vector<LogLine>{
                {LOG_NOTICE, "PacParser-proxys2ProxySettings proxys:PROXY a:1;SOCKS b:2"},
                {LOG_INFO, "PacParser-proxy2ProxySetting proxy:PROXY a:1"},
                {LOG_INFO, "PacParser-proxy2ProxySetting type proxy, url:PROXY a:1"},
                {LOG_INFO,
                 "PacParser-proxys2ProxySettings proxyStr:PROXY a:1  proxy type:2, url:PROXY a:1"},
                {LOG_INFO, "PacParser-proxy2ProxySetting proxy:SOCKS b:2"},
                {LOG_INFO, "PacParser-proxy2ProxySetting type socks, url:SOCKS b:2"},
                {LOG_INFO,
                 "PacParser-proxys2ProxySettings subString:SOCKS b:2 proxy type:3, url:SOCKS b:2"},
                {LOG_INFO, "PacParser-clearProxySettings called "},
                {LOG_INFO, "cleanupProxySetting() called"},
                {LOG_INFO, "cleanupProxySetting() called"},
            }));
}

std::string pieces(int count) {
  std::string text;
  for (int i = 0; i < count; ++i)
    text += (i > 0 ? ";" : "") + std::string("PROXY p:") + std::to_string(i);
  return text;
}
const char* const kDropped =
    "PacParser-proxys2ProxySettings more than 64 entries, the rest is dropped";

TEST(PacResult, ReadsSixtyFourPieces) {
  EXPECT_EQ(parsed(pieces(64)).size(), 64U);
  EXPECT_EQ(parsed(pieces(64) + ";").size(), 64U) << "nothing stands after the last one";
  EXPECT_EQ(parsed(std::string(63, ';') + "DIRECT").size(), 1U);
  EXPECT_EQ(countLog(LOG_WARNING, kDropped), 0);
}

TEST(PacResult, DropsWhatFollowsTheSixtyFourthPieceKnownOrNot) {
  EXPECT_EQ(parsed(pieces(65)), parsed(pieces(64)));
  EXPECT_EQ(countLog(LOG_WARNING, kDropped), 1);
  EXPECT_EQ(parsed(std::string(64, ';') + "DIRECT"), Entries{}) << "empty pieces count";
  EXPECT_EQ(countLog(LOG_WARNING, kDropped), 2);
  clearLog();
  parsed(pieces(9363));
  EXPECT_EQ(countLog(LOG_WARNING, kDropped), 1);
  EXPECT_LT(logLines().size(), 64U * 6);
}

}  // namespace
