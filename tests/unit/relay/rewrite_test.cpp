#include "relay/rewrite.h"

#include <gtest/gtest.h>

using namespace relay;

namespace {

std::string sent(const std::string& head, bool isAbsolute = false) {
  static const Destination kServer{"a", 80};
  RequestHead request;
  EXPECT_EQ(readRequestHead(head, request).status, 0U);
  RequestForm form;
  form.destination = &kServer;
  form.path = "/p";
  form.isAbsolute = isAbsolute;
  form.via = "me";
  return requestFor(request, form);
}

TEST(RequestFor, DropsWhatWasMeantForTheRelayAlone) {
  EXPECT_EQ(
      sent("GET http://a/p HTTP/1.1\r\nHost: evil\r\nConnection: X-Mine, keep-alive\r\n"
           "X-Mine: 1\r\nKeep-Alive: 5\r\nProxy-Connection: keep-alive\r\nUpgrade: h2c\r\n"
           "Proxy-Authorization: Basic eDp5\r\nTE: gzip\r\nAccept: */*\r\nVia: 1.0 you\r\n\r\n"),
      "GET /p HTTP/1.1\r\nHost: a\r\nAccept: */*\r\nVia: 1.0 you, 1.1 me\r\n\r\n");
}

TEST(RequestFor, HasTheWholeUrlForAProxyAndOneLength) {
  EXPECT_EQ(sent("PUT http://a/p HTTP/1.0\r\nContent-Length: 007\r\n\r\n", true),
            "PUT http://a/p HTTP/1.1\r\nHost: a\r\nContent-Length: 7\r\nVia: 1.0 me\r\n\r\n");
}

TEST(RequestFor, LowersMaxForwardsOfTraceAndOptionsAlone) {
  const auto forwards = [](const std::string& method, const std::string& value) {
    const auto text =
        sent(method + " http://a/p HTTP/1.1\r\nHost: a\r\nMax-Forwards: " + value + "\r\n\r\n");
    const auto at = text.find("Max-Forwards: ") + 14;
    return text.substr(at, text.find('\r', at) - at);
  };
  EXPECT_EQ(forwards("OPTIONS", "5"), "4");
  EXPECT_EQ(forwards("TRACE", "1"), "0");
  EXPECT_EQ(forwards("GET", "5"), "5");
  EXPECT_EQ(forwards("OPTIONS", "many"), "many");
}

TEST(RequestFor, ExpectsAContinueOnce) {
  for (const char* field : {"", "Expect: 100-continue\r\n"}) {
    RequestHead request;
    const std::string head =
        "PUT http://a/p HTTP/1.1\r\nContent-Length: 7\r\n" + std::string(field) + "Host: a\r\n\r\n";
    ASSERT_EQ(readRequestHead(head, request).status, 0U);
    const Destination server{"a", 80};
    RequestForm form;
    form.destination = &server;
    form.expectsContinue = true;
    const auto text = requestFor(request, form);
    const auto at = text.find("Expect: 100-continue\r\n");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(text.find("Expect", at + 1), std::string::npos);
  }
}

TEST(ResponseFor, HasOneLengthAndSaysWhetherTheConnectionStays) {
  ResponseHead response;
  ASSERT_EQ(
      readResponseHead("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n"
                       "Connection: X\r\nX: 1\r\nY: 2\r\n\r\n",
                       "GET", response)
          .status,
      0U);
  ResponseForm form;
  form.via = "me";
  EXPECT_EQ(responseFor(response, form),
            "HTTP/1.1 200 OK\r\nY: 2\r\nTransfer-Encoding: chunked\r\nVia: 1.1 me\r\n\r\n");
  form.isHttp11 = false;
  form.isKept = false;
  EXPECT_EQ(responseFor(response, form),
            "HTTP/1.1 200 OK\r\nY: 2\r\nVia: 1.1 me\r\nConnection: close\r\n\r\n");
}

TEST(WentThrough, FindsTheRelaysNameInVia) {
  Fields fields;
  fields.list = {{"Via", "1.1 a, 1.1 me"}};
  EXPECT_TRUE(wentThrough(fields, "me"));
  EXPECT_FALSE(wentThrough(fields, "you"));
}

}  // namespace
