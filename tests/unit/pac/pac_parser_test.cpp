#include "pac/pac_parser.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/unit/pac/recorded_notices.h"
#include "tests/unit/pac/script_on_disk.h"

struct PacParserTestAccess {
  static std::size_t pendingHosts(PacParser& parser) {
    const Lock lock(parser.mCacheMutex);
    return parser.mPendingHosts.size();
  }
  static void setWaitSeconds(PacParser& parser, int seconds) { parser.mWaitSeconds = seconds; }
  static void forgetThatItRuns(PacParser& parser) {
    // The parser's thread now waits for two minutes, and nothing ends this wait. It reads mRunning
    // only after the wait.
    waitForLog(LOG_INFO, "PacParser-pacProcessThreadFunc wait:120000");
    parser.mRunning = false;
  }
};

namespace {

using Texts = std::vector<std::string>;

Texts textsOf(PacParser& parser, const std::string& url) {
  const auto answers = parser.shareAnswers();
  Texts texts;
  for (const auto& entry : parser.getProxy(url)) texts.emplace_back(entry.url);
  return texts;
}

Texts asyncTextsOf(PacParser& parser, const std::string& url) {
  const auto answers = parser.shareAnswers();
  Texts texts;
  for (const auto& entry : parser.getProxyASync(url)) texts.emplace_back(entry.url);
  return texts;
}

class LoadedParser : public testing::Test {
 protected:
  void load(const std::string& text) {
    mFile.write(text);
    mParser.parsePacFile(mFile.path());
    clearLog();
  }

  ScriptOnDisk mFile{scriptFor("PROXY p:1; DIRECT")};
  PacParser mParser{nullptr, false};
};

// While the script changes, each query holds the lock that shareAnswers() returns, as in the
// service.
TEST_F(LoadedParser, AsynchronousAnswersStayWholeWhileScriptsAreReloaded) {
  load(scriptFor("PROXY script:0"));
  mParser.start();
  std::jthread asking([&](const std::stop_token& end) {
    for (int i = 0; !end.stop_requested(); ++i) {
      for (const auto& text : asyncTextsOf(mParser, "http://a" + std::to_string(i % 7) + "/")) {
        EXPECT_TRUE(text.starts_with("PROXY script:")) << text;
      }
    }
  });
  for (int i = 1; i <= 30; ++i) {
    mFile.write(scriptFor("PROXY script:" + std::to_string(i)));
    mParser.parsePacFile(mFile.path());
  }
  asking.request_stop();
}

TEST(PacParser, SaysItsLinesFromConstructionToEnd) {
  clearLog();
  {
    PacParser parser(nullptr, false);
    EXPECT_TRUE(parser.start());
    ASSERT_TRUE(waitForLog(LOG_INFO, "PacParser-pacProcessThreadFunc wait:120000"));
  }
  EXPECT_EQ(logLines(), (std::vector<LogLine>{
                            {LOG_INFO, "PacParser-PacParser called "},
                            {LOG_INFO, "PacParser-start called "},
                            {LOG_INFO, "PacParser-pacProcessThreadFunc called "},
                            {LOG_INFO, "PacParser-pacProcessThreadFunc wait:120000"},
                            {LOG_INFO, "PacParser-~PacParser called "},
                            {LOG_INFO, "PacParser-stop called "},
                            {LOG_INFO, "PacParser-clearProxyUrlCache called "},
                            {LOG_INFO, "clearCache called "},
                            {LOG_INFO, "clearCache called "},  // the cache's destructor empties it
                        }));
}

TEST(PacParser, SecondStartSaysSoAndStartsNothing) {
  PacParser parser(nullptr, false);
  parser.start();
  ASSERT_TRUE(waitForLog(LOG_INFO, "PacParser-pacProcessThreadFunc wait:120000"));
  clearLog();
  EXPECT_TRUE(parser.start());
  EXPECT_EQ(logLines(), (std::vector<LogLine>{{LOG_INFO, "PacParser-start called "},
                                              {LOG_INFO, "PacParser-start already started"}}));
}

TEST(PacParser, StopDoesNotWaitOutTheWorkersSleep) {
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 200; ++i) {
    PacParser parser(nullptr, false);
    parser.start();
    parser.stop();
  }
  // One lost wake-up delays the test by two minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

TEST(PacParser, SecondStopIsHarmless) {
  PacParser parser(nullptr, false);
  parser.start();
  EXPECT_TRUE(parser.stop());
  clearLog();
  EXPECT_TRUE(parser.stop());
  EXPECT_EQ(logLines(), (std::vector<LogLine>{{LOG_INFO, "PacParser-stop called "}}));
}

TEST(PacParser, NotifyWithoutAParserSaysSo) {
  clearLog();
  PacParser::notify(nullptr);
  EXPECT_EQ(logLines(), (std::vector<LogLine>{{LOG_INFO, "PacParser-notify called "},
                                              {LOG_INFO, "PacParser-notify PacParser is NULL"}}));
}

TEST(PacParser, AnEmptyUrlGivesNothing) {
  PacParser parser(nullptr, false);
  clearLog();
  EXPECT_TRUE(parser.getProxy("").empty());
  EXPECT_EQ(logLines(),
            (std::vector<LogLine>{{LOG_NOTICE, "PacParser-getProxy requestUrl:"},
                                  {LOG_ERR, "PacParser-getProxy request url is empty"}}));
}

TEST(PacParser, WithoutAScriptThereIsNoAnswer) {
  PacParser parser(nullptr, false);
  clearLog();
  EXPECT_TRUE(parser.getProxy("http://a.example/").empty());
  EXPECT_TRUE(
      logged(LOG_WARNING, "PacParser-getProxy mPac is empty, may casued by pac file update"));
  EXPECT_TRUE(logged(LOG_WARNING, "PacParser-getProxy can't get proxy url for host:a.example"));
}

TEST(PacParser, AMissingAnswerIsNotCached) {
  PacParser parser(nullptr, false);
  parser.getProxy("http://a.example/");
  clearLog();
  parser.getProxy("http://a.example/");
  EXPECT_EQ(countLog(LOG_NOTICE, "PacParser-getProxy get proxy url from cache"), 0);
}

TEST_F(LoadedParser, AnswersInTheScriptsOrder) {
  load(scriptFor("PROXY p:1; SOCKS s:2; DIRECT"));
  EXPECT_EQ(textsOf(mParser, "http://a.example/x"), (Texts{"PROXY p:1", "SOCKS s:2", "DIRECT"}));
}

TEST_F(LoadedParser, AMissLooksTheKeyUpASecondTime) {
  load(scriptFor("DIRECT"));
  textsOf(mParser, "http://a.example/x");
  std::vector<LogLine> lines = logLines();
  std::erase_if(lines, [](const LogLine& line) { return line.priority == LOG_DEBUG; });
  EXPECT_EQ(
      lines,
      (std::vector<LogLine>{
          {LOG_NOTICE, "PacParser-getProxy requestUrl:http://a.example/x"},
          {LOG_INFO, "getHost url:http://a.example/x"},
          {LOG_INFO, "getHost host:a.example, port:"},
          {LOG_INFO, "get key:a.example"},
          {LOG_INFO, "PacParser-proxyFound called "},
          {LOG_NOTICE, "PacParser-proxy_Found host:a.example"},
          {LOG_NOTICE, "PacParser-proxys2ProxySettings proxys:DIRECT"},
          {LOG_INFO, "PacParser-proxy2ProxySetting proxy:DIRECT"},
          {LOG_INFO, "PacParser-proxys2ProxySettings subString:DIRECT proxy type:1, url:DIRECT"},
          {LOG_NOTICE, "set key:a.example"},
          {LOG_INFO, "setHead key:a.example"},
          {LOG_INFO, "get key:a.example"},
          {LOG_INFO, "remove key:a.example"},
          {LOG_INFO, "setHead key:a.example"},
      }));
}

TEST_F(LoadedParser, ASecondQueryOfAHostComesFromTheCache) {
  load(scriptFor("PROXY p:1"));
  textsOf(mParser, "http://a.example/x");
  clearLog();
  EXPECT_EQ(textsOf(mParser, "https://a.example:8443/another"), Texts{"PROXY p:1"});
  EXPECT_TRUE(logged(LOG_NOTICE, "PacParser-getProxy get proxy url from cache"));
}

TEST_F(LoadedParser, UrlsWithoutAHostShareTheEmptyKey) {
  load(scriptFor("PROXY p:1"));
  textsOf(mParser, "http://:80/");
  EXPECT_TRUE(logged(LOG_NOTICE, "PacParser-proxy_Found host:"));
  clearLog();
  EXPECT_EQ(textsOf(mParser, "http://"), Texts{"PROXY p:1"});
  EXPECT_TRUE(logged(LOG_NOTICE, "PacParser-getProxy get proxy url from cache"));
}

TEST_F(LoadedParser, AnAnswerOfUnknownEntriesIsCachedAsEmpty) {
  load(scriptFor("HTTPS p:1"));
  EXPECT_EQ(textsOf(mParser, "http://a.example/"), Texts{});
  clearLog();
  EXPECT_EQ(textsOf(mParser, "http://a.example/"), Texts{});
  EXPECT_TRUE(logged(LOG_NOTICE, "PacParser-getProxy get proxy url from cache"));
}

TEST_F(LoadedParser, AnEmptyResultIsAnAnswer) {
  load(scriptFor(""));
  EXPECT_EQ(textsOf(mParser, "http://a.example/"), Texts{});
  EXPECT_TRUE(logged(LOG_NOTICE, "PacParser-proxys2ProxySettings proxys:"));
}

TEST_F(LoadedParser, AResultThatIsNoTextIsNoAnswer) {
  load("function FindProxyForURL(url, host) { return 7; }");
  EXPECT_EQ(textsOf(mParser, "http://a.example/"), Texts{});
  EXPECT_TRUE(logged(LOG_WARNING, "PacParser-getProxy can't get proxy url for host:a.example"));
}

TEST_F(LoadedParser, TheFiftyFirstHostPushesTheOldestOut) {
  load(scriptFor("DIRECT"));
  for (int i = 0; i <= PacParser::kCacheCapacity; ++i) {
    textsOf(mParser, "http://h" + std::to_string(i) + "/");
  }
  EXPECT_EQ(countLog(LOG_INFO, "remove deleteNode key:h0"), 1);
  EXPECT_EQ(countLog(LOG_INFO, "remove deleteNode key:h1"), 0);
}

TEST_F(LoadedParser, TheAsynchronousQueryGivesTheSameAnswer) {
  load(scriptFor("PROXY p:1; DIRECT"));
  mParser.start();
  mParser.getProxyASync("http://a.example/");
  // On a slow machine, the query may have ended without the answer. The answer still arrives later.
  ASSERT_TRUE(waitForLog(LOG_NOTICE, "PacParser-proxy_Found host:a.example"));
  EXPECT_EQ(asyncTextsOf(mParser, "http://a.example/"), (Texts{"PROXY p:1", "DIRECT"}));
  EXPECT_EQ(countLog(LOG_NOTICE, "PacParser-getProxyASync requestUrl:http://a.example/"), 2);
  EXPECT_TRUE(logged(LOG_NOTICE, "PacParser-getProxyASync get proxy url from cache"));
  EXPECT_TRUE(logged(LOG_INFO, "PacParser-notify called "));
  EXPECT_TRUE(logged(LOG_INFO, "PacParser-do_notify called "));
  EXPECT_EQ(PacParserTestAccess::pendingHosts(mParser), 0U);
}

TEST_F(LoadedParser, TheAsynchronousQueryGivesUpAfterTwentyLooks) {
  load("function FindProxyForURL(url, host) { return null; }");
  mParser.start();
  clearLog();
  EXPECT_TRUE(mParser.getProxyASync("http://a.example/").empty());
  EXPECT_EQ(countLog(LOG_ERR, "PacParser-getProxyASync waitting too long time"), 1);
  EXPECT_EQ(countLog(LOG_INFO, "get key:a.example"), 1 + 20);
  EXPECT_EQ(PacParserTestAccess::pendingHosts(mParser), 1U) << "still in flight";
}

// The time limit ends an endless script after 5 s. Here it runs for a question of another thread,
// while the parser's own thread also has a question.
TEST_F(LoadedParser, TheAsynchronousQueryDoesNotWaitForAnEvaluationOfAnother) {
  load("function FindProxyForURL(url, host) { while (host == 'endless') {} return 'DIRECT'; }");
  mParser.start();
  clearLog();
  std::jthread asking([&] { textsOf(mParser, "http://endless/"); });
  ASSERT_TRUE(waitForLog(LOG_INFO, "get key:endless"));
  // Five evaluations take 25 s; the limit of a query is 200 ms.
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i) mParser.getProxyASync("http://endless/");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(countLog(LOG_ERR, "PacParser-getProxyASync waitting too long time"), 5);
}

TEST_F(LoadedParser, RemembersAsManyHostsInFlightAsTheEngineQueues) {
  // The parser is not started, so no thread runs the queued questions or waits for them.
  load(scriptFor("DIRECT"));
  for (std::size_t i = 0; i < PacParser::kMaxPendingHosts; ++i) {
    mParser.getProxyASync("http://h" + std::to_string(i) + "/");
  }
  EXPECT_EQ(PacParserTestAccess::pendingHosts(mParser), PacParser::kMaxPendingHosts);
  mParser.getProxyASync("http://one.more/");
  EXPECT_EQ(PacParserTestAccess::pendingHosts(mParser), PacParser::kMaxPendingHosts);
  mParser.clearProxyUrlCache();
  EXPECT_EQ(PacParserTestAccess::pendingHosts(mParser), 0U);
}

TEST(PacParser, TheWorkerWakesAtItsIntervalAndDoesNothingElse) {
  PacParser parser(nullptr, false);
  PacParserTestAccess::setWaitSeconds(parser, 1);
  clearLog();
  parser.start();
  ASSERT_TRUE(waitForLog(LOG_INFO, "PacParser-pacProcessThreadFunc wait:1000", 2));
  parser.stop();
  auto lines = logLines();
  std::erase(lines, LogLine{LOG_INFO, "PacParser-pacProcessThreadFunc wait:1000"});
  EXPECT_EQ(lines, (std::vector<LogLine>{{LOG_INFO, "PacParser-start called "},
                                         {LOG_INFO, "PacParser-pacProcessThreadFunc called "},
                                         {LOG_INFO, "PacParser-stop called "},
                                         {LOG_INFO, "PacParser-clearProxyUrlCache called "},
                                         {LOG_INFO, "clearCache called "},
                                         {LOG_INFO, "clearCache called "}}));
}

TEST(PacParser, AThreadThatIsThereIsNotStartedTwice) {
  PacParser parser(nullptr, false);
  parser.start();
  PacParserTestAccess::forgetThatItRuns(parser);
  parser.start();
  EXPECT_TRUE(logged(LOG_INFO, "PacParser-start pac process thread already started"));
}

TEST_F(LoadedParser, TheAsynchronousQueryNeedsAUrlAndAnEngine) {
  load(scriptFor("DIRECT"));
  EXPECT_TRUE(mParser.getProxyASync("").empty());
  EXPECT_EQ(countLog(LOG_ERR, "PacParser-getProxyASync request url or mPac is empty"), 1);
  PacParser empty(nullptr, false);
  EXPECT_TRUE(empty.getProxyASync("http://a.example/").empty());
  EXPECT_EQ(countLog(LOG_ERR, "PacParser-getProxyASync request url or mPac is empty"), 2);
}

TEST(PacParser, ProxyFoundBearsNullPointersAndFreesTheResult) {
  clearLog();
  PacParser::proxyFound(strdup("DIRECT"), nullptr, nullptr);
  EXPECT_EQ(
      logLines(),
      (std::vector<LogLine>{
          {LOG_INFO, "PacParser-proxyFound called "},
          {LOG_INFO,
           "PacParser-proxyFound PacParser::proxyFound() pacparser or request url is null"}}));
  PacParser parser(nullptr, false);
  clearLog();
  PacParser::proxyFound(strdup("DIRECT"), &parser, nullptr);
  EXPECT_EQ(logLines(),
            (std::vector<LogLine>{
                {LOG_INFO, "PacParser-proxyFound called "},
                {LOG_INFO,
                 "PacParser-proxyFound PacParser::proxyFound() pacparser or request url is null"},
                {LOG_NOTICE, "PacParser-proxy_Found host:"}}));
}

TEST_F(LoadedParser, OfflineItIsOnLoopbackAndResolvesNothing) {
  const std::string text =
      "function FindProxyForURL(url, host) {"
      "  return 'PROXY ' + myIpAddress() + ':' + dnsResolve(host);"
      "}";
  PacParser offline(nullptr, true);
  mFile.write(text);
  offline.parsePacFile(mFile.path());
  EXPECT_EQ(textsOf(offline, "http://a.example/"), Texts{"PROXY 127.0.0.1:null"});
}

// The script changes often during the queries. Each answer must come from the script in force or
// from the previous one, and its texts must stay valid while they are copied.
TEST_F(LoadedParser, AnswersStayWholeWhileScriptsAreReloaded) {
  const int reloads = 60;
  std::atomic<int> answered{0};
  load(scriptFor("PROXY script-number-000000000000:1"));
  // Only this thread queries these hosts. If two threads asked for the same host before it is in
  // the cache, both would store a list, and the second would replace the first.
  std::jthread asking([&](const std::stop_token& end) {
    while (!end.stop_requested()) {
      const auto texts = textsOf(mParser, "http://a" + std::to_string(answered % 7) + "/");
      EXPECT_EQ(texts.size(), 1U);
      EXPECT_TRUE(texts.empty() || texts[0].starts_with("PROXY script-number-"));
      ++answered;
    }
  });
  for (int i = 1; i <= reloads; ++i) {
    std::string number = std::to_string(i);
    number.insert(0, 12 - number.size(), '0');
    const std::string answer = "PROXY script-number-" + number + ":1";
    mFile.write(scriptFor(answer));
    mParser.parsePacFile(mFile.path());
    // The cache must not have answers of the previous script now.
    for (int host = 0; host < 7; ++host) {
      ASSERT_EQ(textsOf(mParser, "http://h" + std::to_string(host) + "/"), Texts{answer});
    }
  }
  asking.request_stop();
  asking.join();
  EXPECT_GT(answered, 0);
}

}  // namespace
