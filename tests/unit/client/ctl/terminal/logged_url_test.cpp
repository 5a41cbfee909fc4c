#include "client/ctl/terminal/logged_url.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using client::urlOfLine;
using client::urlsOfLog;

TEST(LoggedUrl, OfAListIsTheLine) {
  EXPECT_EQ(urlOfLine("  http://a/b \r"), "http://a/b");
  EXPECT_EQ(urlOfLine("# http://a/b"), "");
  EXPECT_EQ(urlOfLine(" \t"), "");
}

TEST(LoggedUrl, OfAListMayHaveARemarkBehindIt) {
  EXPECT_EQ(urlOfLine("http://a/ # remark"), "http://a/");
  EXPECT_EQ(urlOfLine("https://a/b\t5"), "https://a/b");
  EXPECT_EQ(urlOfLine("://a 5"), "");
}

TEST(LoggedUrl, FollowsAMethod) {
  EXPECT_EQ(urlOfLine("1.2 3 a TCP_MISS/200 4 M-SEARCH http://a/b - DIRECT/1.2 -"), "http://a/b");
  EXPECT_EQ(urlOfLine("1.2 3 a TCP_MISS/200 4 VERSION-CONTROL http://a/b -"), "http://a/b");
  EXPECT_EQ(urlOfLine("a - http://a/b"), "");

  EXPECT_EQ(urlOfLine("1.2 3 a TCP_MISS/200 4 GET http://a/b - DIRECT/1.2 -"), "http://a/b");
  EXPECT_EQ(urlOfLine(R"(a - - [21/Nov/2026:10:00:00 +0000] "POST http://a/b HTTP/1.1" 200 5)"),
            "http://a/b");
  EXPECT_EQ(urlOfLine("a get http://a/b"), "");
  EXPECT_EQ(urlOfLine("a GET /b"), "");
}

TEST(LoggedUrl, OfATunnelIsHttps) {
  EXPECT_EQ(urlOfLine("a CONNECT a.test:443 b"), "https://a.test/");
  EXPECT_EQ(urlOfLine("a CONNECT a.test:8443 b"), "https://a.test:8443/");
  EXPECT_EQ(urlOfLine("a CONNECT [::1]:443 b"), "https://[::1]/");
  EXPECT_EQ(urlOfLine("a CONNECT"), "");
}

TEST(LoggedUrl, OfTheRelayIsTheDestination) {
  EXPECT_EQ(urlOfLine("relay: request to a.test:80 by DIRECT"), "http://a.test/");
  EXPECT_EQ(urlOfLine("relay: request to a.test:443 by DIRECT"), "http://a.test:443/");
  EXPECT_EQ(urlOfLine("x[1]: relay: tunnel to [::1]:443 by PROXY p:1"), "https://[::1]/");
  EXPECT_EQ(urlOfLine("relay: no way to a.test:443: refused"), "https://a.test/");
  EXPECT_EQ(urlOfLine("relay: no way to [::1]:80: refused; again"), "http://[::1]/");
  EXPECT_EQ(urlOfLine("relay: no answer of the daemon: busy"), "");
  EXPECT_EQ(urlOfLine("relay: request to nowhere by DIRECT"), "");
}

TEST(LoggedUrl, OfTheRelaysPageIsADestination) {
  const std::vector<std::string> expected{"https://a.test/", "http://b.test:81/"};
  EXPECT_EQ(urlsOfLog(R"( {"decisions": [{"destination": "a.test:443"}, 7, {"destination": 8},
                          {"destination": "b.test:81"}]})"),
            expected);
  // A text that only looks like the page is read as a list.
  EXPECT_EQ(urlsOfLog("{\"decisions\":7}\nhttp://a/\n"),
            (std::vector<std::string>{"{\"decisions\":7}", "http://a/"}));
}

}  // namespace
