#include "relay/tunnel_answer.h"

#include <gtest/gtest.h>

using namespace relay;

namespace {

void expectAnswer(std::string_view bytes, std::size_t length, unsigned status) {
  const auto answer = readTunnelAnswer(bytes);
  EXPECT_EQ(answer.length, length) << bytes;
  EXPECT_EQ(answer.status, status) << bytes;
}

TEST(TunnelAnswer, EndsWithAnEmptyLineOfEitherForm) {
  expectAnswer("HTTP/1.1 200 OK\r\nA: b\r\n\r\nrest", 25, 200);
  expectAnswer("HTTP/1.0 200\n\nrest", 14, 200);
  expectAnswer("HTTP/1.1 407 Auth\nA: b\n\n", 24, 407);
}

TEST(TunnelAnswer, IsWaitedForUntilItsEnd) {
  const std::string_view whole = "HTTP/1.1 200 OK\r\nA: b\r\n\r\n";
  for (std::size_t size = 0; size < whole.size(); size++) {
    expectAnswer(whole.substr(0, size), 0, 0);
  }
}

TEST(TunnelAnswer, HasNoStatusIfItIsNotOneOfHttp) {
  expectAnswer("220 smtp\r\n\r\n", 12, 0);
  expectAnswer("HTTP/1.1 2x0 OK\r\n\r\n", 19, 0);
  expectAnswer("HTTP/1.1\r\n\r\n", 12, 0);
  expectAnswer("HTTP/2 200\r\n\r\n", 14, 0);
  expectAnswer("\r\n\r\n", 4, 0);
}

}  // namespace
