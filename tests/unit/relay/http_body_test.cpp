#include "relay/http_body.h"

#include <gtest/gtest.h>

#include <string>

using namespace relay;

namespace {

struct Result {
  std::string out;
  std::size_t taken = 0;
  bool isComplete = false;
  std::string problem;
};

/// Reads `bytes` in pieces of `step` bytes.
Result read(const Body& body, const std::string& bytes, std::size_t step, bool keepsChunks = true) {
  BodyReader reader(body, keepsChunks);
  Result result;
  for (std::size_t at = 0; at < bytes.size();) {
    const auto piece = std::string_view(bytes).substr(at, step);
    const auto taken = reader.take(piece, result.out);
    result.taken += taken;
    at += piece.size();
    if (taken < piece.size()) break;
  }
  result.isComplete = reader.isComplete();
  result.problem = reader.problem();
  return result;
}

constexpr Body kChunked{BodyKind::kChunked, 0};

TEST(ChunkedBody, IsWrittenAgainWithoutExtensionsWhateverItsPieces) {
  const std::string body = "3;a=\"b\"\r\nabc\r\n00A \r\n0123456789\r\n0\r\nX: y\r\n\r\n";
  for (std::size_t step = 1; step <= body.size() + 4; step++) {
    const auto whole = read(kChunked, body + "next", step);
    EXPECT_TRUE(whole.isComplete) << whole.problem;
    EXPECT_EQ(whole.out, "3\r\nabc\r\na\r\n0123456789\r\n0\r\nX: y\r\n\r\n") << step;
    EXPECT_EQ(whole.taken, body.size());
    EXPECT_EQ(read(kChunked, body, step, false).out, "abc0123456789");
  }
}

TEST(ChunkedBody, ThatIsBrokenIsRefused) {
  for (const char* body : {"\r\n", "x\r\n", "-1\r\n", "0x3\r\nabc\r\n", "3\nabc\r\n",
                           "3\r\nabcd\r\n", "3\r\nabc\n\r\n", "3 3\r\nabc\r\n", "3;\x01\r\nabc\r\n",
                           "fffffffffffffffff\r\n", "3\rabc\r\n", "0\r\nX\r\n\r\n",
                           "0\r\n X: y\r\n\r\n", "0\r\nHost: evil\r\n\r\n", "0\r\nX: y\n\r\n"}) {
    const auto broken = read(kChunked, body, 1);
    EXPECT_FALSE(broken.isComplete) << body;
    EXPECT_NE(broken.problem, "") << body;
  }
}

TEST(ChunkedBody, HasLinesOfAtMost4096Bytes) {
  const std::string longest = "1;" + std::string(kMaxChunkLine - 2, 'x') + "\r\n";
  EXPECT_EQ(read(kChunked, longest, 7).problem, "");
  EXPECT_NE(read(kChunked, "1;" + longest.substr(1), 7).problem, "");
}

TEST(ChunkedBody, HasTrailersOfAtMost16KiB) {
  const std::string line = "X: " + std::string(1019, 'y') + "\r\n";
  std::string body = "0\r\n";
  for (std::size_t size = 0; size < kMaxTrailerBytes; size += line.size()) body += line;
  EXPECT_TRUE(read(kChunked, body + "\r\n", 4096).isComplete);
  EXPECT_NE(read(kChunked, body + "X:\r\n\r\n", 4096).problem, "");
}

TEST(BodyWithALength, EndsThereAndLeavesTheRest) {
  const auto whole = read({BodyKind::kLength, 5}, "helloGET /", 3);
  EXPECT_TRUE(whole.isComplete);
  EXPECT_EQ(whole.out, "hello");
  EXPECT_EQ(whole.taken, 5U);
  EXPECT_TRUE(read({BodyKind::kLength, 0}, "", 1).isComplete);
}

TEST(Body, ThatEndsWithItsStreamIsWholeAndOneWithALengthIsNot) {
  BodyReader open({BodyKind::kUntilClose, 0});
  std::string out;
  EXPECT_EQ(open.take("abc", out), 3U);
  EXPECT_FALSE(open.isComplete());
  open.streamEnded();
  EXPECT_TRUE(open.isComplete());
  BodyReader counted({BodyKind::kLength, 4});
  counted.take("abc", out);
  counted.streamEnded();
  EXPECT_FALSE(counted.isComplete());
  EXPECT_STRNE(counted.problem(), "");
}

}  // namespace
