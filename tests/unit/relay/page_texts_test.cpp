#include "relay/page_texts.h"

#include <gtest/gtest.h>

using namespace relay;

namespace {

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(RelayPage, ShowsNothingOfAScriptUnescaped) {
  Report report;
  report.isUserKnown = true;
  report.source = "<s>";
  report.askedUrl = "\"><script>";
  report.way = {"<b>"};
  report.penalties = {{"<i>", "'x'", std::chrono::seconds{5}}};
  report.decisions = {{0, 0, "<u>", "&", false}};
  const auto html = htmlOf(report);
  for (const char* tag : {"<script", "<b>", "<i>", "<u>", "<s>"})
    EXPECT_FALSE(has(html, tag)) << tag;
  EXPECT_TRUE(has(html, "&quot;&gt;&lt;script&gt;"));
  EXPECT_TRUE(has(html, "1970-01-01 00:00:00Z"));
}

TEST(RelayPage, ShowsNoDecisionsToAnUnknownUser) {
  EXPECT_TRUE(has(htmlOf(Report()), "Your user is not known"));
}

TEST(RelayMetrics, AreOpenMetricsText) {
  Report report;
  report.counters.tunnels = 7;
  const auto text = metricsOf(report);
  EXPECT_TRUE(has(text, "# TYPE proxymanager_relay_tunnels counter\n"));
  EXPECT_TRUE(has(text, "\nproxymanager_relay_tunnels_total 7\n"));
  EXPECT_TRUE(has(text, "\nproxymanager_relay_open_connections 0\n"));
  EXPECT_TRUE(text.ends_with("# EOF\n"));
}

TEST(QueryValue, IsDecoded) {
  EXPECT_EQ(queryValue("a=1&url=http%3A%2F%2Fx%2F+y&b", "url"), "http://x/ y");
  EXPECT_EQ(queryValue("url=%zz%4", "url"), "%zz%4");
  EXPECT_FALSE(queryValue("urls=1", "url"));
  EXPECT_EQ(queryValue("url=" + std::string(9000, 'x'), "url")->size(), 8192U);
}

TEST(RelayScript, NamesTheRelay) {
  EXPECT_TRUE(has(scriptFor("127.0.0.1:3128"), "return \"PROXY 127.0.0.1:3128\";"));
}

}  // namespace
