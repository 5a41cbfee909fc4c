#include "service/records/proxy_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <limits>
#include <string>

#include "tests/support/log_capture.h"

namespace {

using testing::ElementsAre;

char* text(const std::string& value) {
  return strdup(value.c_str());
}

ProxyConfig filled() {
  ProxyConfig config;
  config.mode = manual;
  config.proxyurl = text("http://proxy:1");
  config.pacurl = text("http://pac/");
  config.enableauth = true;
  config.userName = text("user");
  config.password = text("secret");
  return config;
}

TEST(Records, KeepTheirFieldsInOrder) {
  EXPECT_EQ(offsetof(ProxyConfig, mode), 0u);
  EXPECT_LT(offsetof(ProxyConfig, mode), offsetof(ProxyConfig, proxyurl));
  EXPECT_LT(offsetof(ProxyConfig, proxyurl), offsetof(ProxyConfig, pacurl));
  EXPECT_LT(offsetof(ProxyConfig, pacurl), offsetof(ProxyConfig, enableauth));
  EXPECT_LT(offsetof(ProxyConfig, enableauth), offsetof(ProxyConfig, userName));
  EXPECT_LT(offsetof(ProxyConfig, userName), offsetof(ProxyConfig, password));
  EXPECT_EQ(offsetof(ProxyUrlSetting, type), 0u);
  EXPECT_LT(offsetof(ProxyUrlSetting, type), offsetof(ProxyUrlSetting, url));
  EXPECT_EQ(offsetof(ProxyUrlInfo, kind), 0u);
  EXPECT_LT(offsetof(ProxyUrlInfo, kind), offsetof(ProxyUrlInfo, urls));
  EXPECT_LT(offsetof(ProxyUrlInfo, urls), offsetof(ProxyUrlInfo, extraA));
  EXPECT_LT(offsetof(ProxyUrlInfo, extraA), offsetof(ProxyUrlInfo, extraB));
  EXPECT_LT(offsetof(ProxyUrlInfo, extraB), offsetof(ProxyUrlInfo, urlCount));
  EXPECT_EQ(sizeof(ProxyMode), 4u);
}

TEST(InitProxyConfig, MakesARecordWithNothingSetAndFreesNothing) {
  char notHeap[] = "not malloc'ed: freeing it would end the test";
  ProxyConfig config;
  config.mode = wpad;
  config.proxyurl = config.pacurl = config.userName = config.password = notHeap;
  config.enableauth = true;
  initProxyConfig(&config);
  EXPECT_EQ(config.mode, off);
  EXPECT_EQ(config.proxyurl, nullptr);
  EXPECT_EQ(config.pacurl, nullptr);
  EXPECT_FALSE(config.enableauth);
  EXPECT_EQ(config.userName, nullptr);
  EXPECT_EQ(config.password, nullptr);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_INFO, "initProxyConfig() called"}));
}

TEST(CleanupProxyConfig, FreesTheStringsAndKeepsModeAndAuthentication) {
  ProxyConfig config = filled();
  cleanupProxyConfig(&config);
  EXPECT_EQ(config.mode, manual);
  EXPECT_TRUE(config.enableauth);
  EXPECT_EQ(config.proxyurl, nullptr);
  EXPECT_EQ(config.pacurl, nullptr);
  EXPECT_EQ(config.userName, nullptr);
  EXPECT_EQ(config.password, nullptr);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_INFO, "cleanupProxyConfig() called"}));
}

TEST(CleanupProxyConfig, BearsARecordThatIsAlreadyClean) {
  ProxyConfig config = filled();
  cleanupProxyConfig(&config);
  cleanupProxyConfig(&config);
  EXPECT_EQ(config.mode, manual);
}

TEST(CloneProxyConfig, CopiesEveryFieldIntoStringsOfItsOwn) {
  ProxyConfig source = filled();
  ProxyConfig copy;
  cloneProxyConfig(&source, &copy);
  EXPECT_NE(copy.proxyurl, source.proxyurl);
  cleanupProxyConfig(&source);
  EXPECT_EQ(copy.mode, manual);
  EXPECT_TRUE(copy.enableauth);
  EXPECT_STREQ(copy.proxyurl, "http://proxy:1");
  EXPECT_STREQ(copy.pacurl, "http://pac/");
  EXPECT_STREQ(copy.userName, "user");
  EXPECT_STREQ(copy.password, "secret");
  EXPECT_EQ(countLog(LOG_INFO, "cloneProxyConfig() called"), 1);
  cleanupProxyConfig(&copy);
}

TEST(CloneProxyConfig, MakesAnEmptySourceStringNull) {
  ProxyConfig source;
  source.pacurl = text("");
  ProxyConfig copy;
  char untouched[] = "x";
  copy.pacurl = untouched;
  cloneProxyConfig(&source, &copy);
  EXPECT_EQ(copy.pacurl, nullptr);
  EXPECT_TRUE(logged(LOG_INFO, "string2Char: input is null, or length:0 <= 0"));
  cleanupProxyConfig(&source);
}

TEST(CloneProxyConfig, LeavesTheDestinationWhereTheSourceStringIsNull) {
  const ProxyConfig source;
  ProxyConfig copy = filled();
  char* const before = copy.pacurl;
  cloneProxyConfig(&source, &copy);
  EXPECT_EQ(copy.mode, off);
  EXPECT_FALSE(copy.enableauth);
  EXPECT_EQ(copy.pacurl, before);
  EXPECT_STREQ(copy.pacurl, "http://pac/");
  EXPECT_STREQ(copy.proxyurl, "http://proxy:1");
  EXPECT_STREQ(copy.userName, "user");
  EXPECT_STREQ(copy.password, "secret");
  cleanupProxyConfig(&copy);
}

// Handles the signal of the crash that the contract requires. Prints the log lines before the crash
// for the test.
extern "C" void sayWhatWasLogged(int) {
  for (const auto& line : logLines()) std::cerr << line << std::endl;
  _exit(70);
}

void cloneAndReport(const ProxyConfig* source, ProxyConfig* destination) {
  for (const int fatal : {SIGSEGV, SIGILL, SIGTRAP, SIGBUS}) signal(fatal, sayWhatWasLogged);
  cloneProxyConfig(source, destination);
}

TEST(CloneProxyConfigDeathTest, NamesANullRecordAndGoesOn) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the undefined-behaviour sanitizer ends the process before the signal";
#elif defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the thread sanitizer forbids what the handler of the signal does";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  GTEST_SKIP() << "the undefined-behaviour sanitizer ends the process before the signal";
#endif
#endif
  ProxyConfig record;
  const std::string line = "<3>\"cloneProxyConfig srcConfig or destConfig is null\"";
  EXPECT_EXIT(cloneAndReport(nullptr, &record), testing::ExitedWithCode(70), line);
  EXPECT_EXIT(cloneAndReport(&record, nullptr), testing::ExitedWithCode(70), line);
}

TEST(InitProxyUrlInfo, MakesTheAskedNumberOfEmptySlots) {
  ProxyUrlInfo info;
  initProxyUrlInfo(&info, 7, 3);
  EXPECT_EQ(info.kind, 7);
  EXPECT_EQ(info.urlCount, 3);
  ASSERT_NE(info.urls, nullptr);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(info.urls[i], nullptr);
  EXPECT_EQ(info.extraA, nullptr);
  EXPECT_EQ(info.extraB, nullptr);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_INFO, "initProxyUrlInfo() called"}));
  cleanupProxyUrlInfo(&info);
}

TEST(InitProxyUrlInfo, KeepsANegativeCountAndMakesNoArray) {
  ProxyUrlInfo info;
  initProxyUrlInfo(&info, 1, -2);
  EXPECT_EQ(info.urlCount, -2);
  EXPECT_EQ(info.urls, nullptr);
}

TEST(CleanupProxyUrlInfo, FreesSlotsArrayAndExtrasAndZeroesTheRecord) {
  ProxyUrlInfo info;
  initProxyUrlInfo(&info, 7, 3);
  info.urls[0] = text("http://a/");
  info.urls[2] = text("http://c/");
  info.extraA = text("a");
  info.extraB = text("b");
  clearLog();
  cleanupProxyUrlInfo(&info);
  EXPECT_EQ(info.kind, 0);
  EXPECT_EQ(info.urls, nullptr);
  EXPECT_EQ(info.extraA, nullptr);
  EXPECT_EQ(info.extraB, nullptr);
  EXPECT_EQ(info.urlCount, 0);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_INFO, "cleanupProxyUrlInfo() called"}));
}

TEST(CleanupProxyUrlInfo, FreesNothingOfARecordWithoutSlots) {
  ProxyUrlInfo info;
  initProxyUrlInfo(&info, 7, 0);
  char* notHeap[1] = {nullptr};
  info.urls = notHeap;  // the record must not free an array without a count
  cleanupProxyUrlInfo(&info);
  EXPECT_EQ(info.urls, notHeap);
  EXPECT_EQ(info.kind, 0);
  EXPECT_EQ(info.urlCount, 0);
}

TEST(CleanupProxySetting, FreesTheUrlAndForgetsTheType) {
  ProxyUrlSetting setting{2, text("PROXY a:1")};
  cleanupProxySetting(&setting);
  EXPECT_EQ(setting.type, 0);
  EXPECT_EQ(setting.url, nullptr);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_INFO, "cleanupProxySetting() called"}));
  cleanupProxySetting(&setting);
  EXPECT_EQ(setting.url, nullptr);
}

TEST(Str2ProxyMode, KnowsTheFourModesInAnyLetterCase) {
  EXPECT_EQ(str2ProxyMode("off"), off);
  EXPECT_EQ(str2ProxyMode("manual"), manual);
  EXPECT_EQ(str2ProxyMode("pacurl"), pacurl);
  EXPECT_EQ(str2ProxyMode("wpad"), wpad);
  EXPECT_EQ(str2ProxyMode("MANUAL"), 1);
  EXPECT_EQ(str2ProxyMode("Wpad"), 3);
}

TEST(Str2ProxyMode, TakesAnyOtherTextForOffWithoutAWarning) {
  for (const char* other : {"", "proxy", "off ", " wpad", "manuall", "pac"})
    EXPECT_EQ(str2ProxyMode(other), off) << other;
  for (const auto& line : logLines()) EXPECT_EQ(line.priority, LOG_INFO);
}

TEST(Str2ProxyMode, ShowsItsOwnNameInItsLine) {
  str2ProxyMode("wpad");
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_INFO, "str2ProxyMode() called mode:str2ProxyMode"}));
}

TEST(ProxyMode2Str, SaysTheModeTwice) {
  const char* const texts[] = {"off", "manual", "pacurl", "wpad"};
  for (int mode = 0; mode < 4; ++mode) {
    clearLog();
    EXPECT_STREQ(proxyMode2Str(ProxyMode{mode}), texts[mode]);
    const std::string number = std::to_string(mode);
    EXPECT_THAT(
        logLines(),
        ElementsAre(LogLine{LOG_INFO, "proxyMode2Str: proxyMode2Str() called mode:" + number},
                    LogLine{LOG_INFO, std::string("proxyMode2Str: str mode:") + texts[mode]}));
  }
}

TEST(ProxyMode2Str, ShowsAnUnknownNumberAsOffWithOneErrorLine) {
  for (const int mode : {4, -1, std::numeric_limits<int>::min()}) {
    clearLog();
    EXPECT_STREQ(proxyMode2Str(ProxyMode{mode}), "off");
    const std::string number = std::to_string(mode);
    EXPECT_THAT(
        logLines(),
        ElementsAre(LogLine{LOG_INFO, "proxyMode2Str: proxyMode2Str() called mode:" + number},
                    LogLine{LOG_ERR, "proxyMode2Str: mode:" + number + " is invalid"}));
  }
}

TEST(String2Char, CopiesTheGivenLengthAndTerminatesItSilently) {
  char* const ab = string2Char("abc", 2);
  EXPECT_STREQ(ab, "ab");
  std::free(ab);
  EXPECT_TRUE(logLines().empty());
}

TEST(String2Char, CopiesBytesWithoutATerminatorAndZerosAmongThem) {
  const char bytes[] = {'a', '\0', 'b', 'c'};
  char* const copy = string2Char(bytes, 4);
  EXPECT_EQ(std::memcmp(copy, "a\0bc", 5), 0);
  std::free(copy);
}

TEST(String2Char, RefusesNullAndLengthsBelowOne) {
  EXPECT_EQ(string2Char("abc", 0), nullptr);
  EXPECT_EQ(string2Char(nullptr, 5), nullptr);
  EXPECT_EQ(string2Char("abc", -3), nullptr);
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_INFO, "string2Char: input is null, or length:0 <= 0"},
                          LogLine{LOG_INFO, "string2Char: input is null, or length:5 <= 0"},
                          LogLine{LOG_INFO, "string2Char: input is null, or length:-3 <= 0"}));
}

}  // namespace
