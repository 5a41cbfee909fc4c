#include "relay/http_head.h"

#include <gtest/gtest.h>

#include <string>

using namespace relay;

namespace {

unsigned statusOf(const std::string& head) {
  RequestHead request;
  return readRequestHead(head, request).status;
}

/// Reads a head that has these lines after the request line and Host. @return the status
unsigned statusWith(const std::string& lines, const std::string& version = "1.1") {
  return statusOf("POST http://a/ HTTP/" + version + "\r\nHost: a\r\n" + lines + "\r\n");
}

TEST(RequestHead, IsReadWithItsParts) {
  const std::string text =
      "POST http://a/b?c HTTP/1.1\r\nHost: a\r\nX-Empty:\r\nX-Blank: \t v w \t\r\n"
      "Content-Length: 12\r\n\r\n";
  RequestHead request;
  ASSERT_EQ(readRequestHead(text, request).status, 0U);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "http://a/b?c");
  EXPECT_TRUE(request.isHttp11);
  EXPECT_EQ(request.fields.find("x-blank"), "v w");
  EXPECT_TRUE(request.fields.has("X-Empty"));
  EXPECT_EQ(request.body.kind, BodyKind::kLength);
  EXPECT_EQ(request.body.length, 12U);
}

TEST(RequestHead, ThatCouldBeReadInTwoWaysIsRefused) {
  for (const char* lines : {"Content-Length: 1\r\nTransfer-Encoding: chunked\r\n",
                            "Transfer-Encoding: xchunked\r\n",
                            "Transfer-Encoding: chunked, gzip\r\n",
                            "Transfer-Encoding: gzip, chunked\r\n",
                            "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n",
                            "Transfer-Encoding : chunked\r\n",
                            "Transfer-Encoding:\x0b"
                            "chunked\r\n",
                            "Transfer-Encoding: \"chunked\"\r\n",
                            "Transfer-Encoding: chunked;x\r\n",
                            "Content-Length: 1, 1\r\n",
                            "Content-Length: 1\r\nContent-Length: 1\r\n",
                            "Content-Length: +1\r\n",
                            "Content-Length: -1\r\n",
                            "Content-Length: 0x1\r\n",
                            "Content-Length: 1 1\r\n",
                            "Content-Length:\r\n",
                            "Content-Length: 99999999999999999999\r\n",
                            "Host: b\r\n",
                            "X: a\r\n b\r\n",
                            " X: a\r\n",
                            "X: a\rb\r\n",
                            "X: a\nY: b\r\n",
                            "X\r\n",
                            ": a\r\n",
                            "X a: b\r\n",
                            "X: a\x7f\r\n",
                            "X: \x01\r\n",
                            "Connection: Host\r\n",
                            "Connection: content-length\r\n",
                            "Connection: Transfer-Encoding, close\r\n",
                            "Connection: a b\r\n"}) {
    EXPECT_EQ(statusWith(lines), 400U) << lines;
  }
  EXPECT_EQ(statusWith(std::string("X: a\0b\r\n", 8)), 400U);
  EXPECT_EQ(statusWith("Transfer-Encoding: chunked\r\n", "1.0"), 400U);
  EXPECT_EQ(statusWith("Transfer-Encoding: CHUNKED\r\n"), 0U);
}

TEST(RequestHead, OfABrokenRequestLineIsRefused) {
  for (const char* line :
       {"GET\r\n", "GET /\r\n", "GET  / HTTP/1.1\r\n", " GET / HTTP/1.1\r\n", "G(T / HTTP/1.1\r\n",
        "GET /a b HTTP/1.1\r\n", "GET /\t HTTP/1.1\r\n", "GET /\r HTTP/1.1\r\n"}) {
    EXPECT_EQ(statusOf(std::string(line) + "Host: a\r\n\r\n"), 400U) << line;
  }
  EXPECT_EQ(statusOf("GET / HTTP/2.0\r\nHost: a\r\n\r\n"), 505U);
  EXPECT_EQ(statusOf("GET / HTTP/1.1 \r\nHost: a\r\n\r\n"), 400U);
}

TEST(RequestHead, NeedsOneHostInHttp11) {
  EXPECT_EQ(statusOf("GET / HTTP/1.1\r\n\r\n"), 400U);
  EXPECT_EQ(statusOf("GET / HTTP/1.0\r\n\r\n"), 0U);
}

TEST(RequestHead, HasAtMostTwoHundredFields) {
  std::string lines;
  for (std::size_t count = 1; count < kMaxFields; count++) lines += "X: y\r\n";
  EXPECT_EQ(statusWith(lines), 0U);
  EXPECT_EQ(statusWith(lines + "X: y\r\n"), 431U);
}

TEST(RequestHead, BelievesLengthsUpToTheLimit) {
  EXPECT_EQ(statusWith("Content-Length: " + std::to_string(kMaxBodyBytes) + "\r\n"), 0U);
  EXPECT_EQ(statusWith("Content-Length: " + std::to_string(kMaxBodyBytes + 1) + "\r\n"), 400U);
}

TEST(HeadLength, IsFoundWhereverTheBytesWereCut) {
  const std::string head = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
  for (std::size_t cut = 0; cut < head.size(); cut++) {
    EXPECT_EQ(headLength(std::string_view(head).substr(0, cut)), 0U);
    EXPECT_EQ(headLength(head + "rest", cut), head.size());
  }
}

ResponseHead responseOf(const std::string& head, unsigned wanted, std::string_view method = "GET") {
  ResponseHead response;
  EXPECT_EQ(readResponseHead(head, method, response).status, wanted) << head;
  return response;
}

TEST(ResponseHead, TellsHowItsBodyEnds) {
  EXPECT_EQ(responseOf("HTTP/1.1 200 OK\r\n\r\n", 0).body.kind, BodyKind::kUntilClose);
  EXPECT_EQ(responseOf("HTTP/1.0 200\r\n\r\n", 0).body.kind, BodyKind::kUntilClose);
  EXPECT_EQ(responseOf("HTTP/1.1 204 No\r\nContent-Length: 5\r\n\r\n", 0).body.kind,
            BodyKind::kNone);
  EXPECT_EQ(responseOf("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", 0, "HEAD").body.kind,
            BodyKind::kNone);
  EXPECT_EQ(responseOf("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\n", 0)
                .body.length,
            5U);
  const auto both =
      responseOf("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n", 0);
  EXPECT_EQ(both.body.kind, BodyKind::kChunked);
  EXPECT_TRUE(both.isDoubtful);
}

TEST(ResponseHead, ThatIsBrokenIsRefused) {
  for (const char* head :
       {"220 mail ready\r\n\r\n", "HTTP/1.1 20 OK\r\n\r\n", "HTTP/1.1 2000 OK\r\n\r\n",
        "HTTP/1.1 099 OK\r\n\r\n", "HTTP/1.1 200 O\x01K\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\n",
        "HTTP/1.1 200 OK\r\nX: a\r\n folded\r\n\r\n"}) {
    responseOf(head, 502);
  }
}

TEST(Trailers, ThatBelongToTheHeadAreRefused) {
  Fields trailers;
  EXPECT_EQ(readTrailers("X-Sum: 1\r\n", trailers).status, 0U);
  for (const char* name : {"Host", "content-length", "Transfer-Encoding", "Via"}) {
    Fields none;
    EXPECT_EQ(readTrailers(std::string(name) + ": 1\r\n", none).status, 400U) << name;
  }
}

}  // namespace
