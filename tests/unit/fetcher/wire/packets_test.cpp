#include "fetcher/wire/packets.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace fetcher;

TEST(FetchPackets, ARequestComesBackAsItWas) {
  const auto request = decodeRequest(encode(FetchRequest{30, 512000, 5, "http://a/\xff\n"}));
  ASSERT_TRUE(request);
  EXPECT_EQ(request->seconds, 30);
  EXPECT_EQ(request->bytes, 512000);
  EXPECT_EQ(request->redirects, 5);
  EXPECT_EQ(request->url, "http://a/\xff\n");
}

TEST(FetchPackets, TheLongestUrlFitsAndALongerOneIsCut) {
  for (const std::size_t length : {kMostUrlBytes, kMostUrlBytes + 1}) {
    const std::string packet = encode(FetchRequest{30, 512000, 5, std::string(length, 'x')});
    EXPECT_LT(packet.size(), kPacketBufferBytes);
    ASSERT_TRUE(decodeRequest(packet));
    EXPECT_EQ(decodeRequest(packet)->url.size(), kMostUrlBytes);
  }
}

TEST(FetchPackets, ARequestWithoutLimitsIsNone) {
  EXPECT_FALSE(decodeRequest(encode(FetchRequest{0, 1, 0, ""})));
  EXPECT_FALSE(decodeRequest(encode(FetchRequest{1, 0, 0, ""})));
  EXPECT_FALSE(decodeRequest(encode(FetchRequest{1, 1, -1, ""})));
  EXPECT_TRUE(decodeRequest(encode(FetchRequest{1, 1, 0, ""})));
}

TEST(FetchPackets, AResultComesBackAsItWas) {
  const auto result = decodeResult(encode(FetchResult{true, 404, "HTTPS", "why"}));
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->success);
  EXPECT_EQ(result->responseCode, 404);
  EXPECT_EQ(result->scheme, "HTTPS");
  EXPECT_EQ(result->error, "why");
}

TEST(FetchPackets, AnErrorHas511BytesAtMost) {
  const auto result = decodeResult(encode(FetchResult{false, 0, "", std::string(600, 'x')}));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->error, std::string(511, 'x'));
}

TEST(FetchPackets, TextsOfTheChildComeOutPrintable) {
  const auto result = decodeResult(encode(FetchResult{false, 0, "a\nb", "X=1\nREADY=1\x1b\xff"}));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->scheme, "a?b");
  EXPECT_EQ(result->error, "X=1?READY=1??");
}

TEST(FetchPackets, TheStatesOfAChildComeBack) {
  for (const auto state :
       {FetchReady::State::ready, FetchReady::State::noHandle, FetchReady::State::noWalls}) {
    const auto ready = decodeReady(encode(FetchReady{state, true, "wall"}));
    ASSERT_TRUE(ready);
    EXPECT_EQ(ready->state, state);
    EXPECT_TRUE(ready->limitsFiles);
    EXPECT_EQ(ready->problem, "wall");
  }
}

/// Sets one 32-bit number of a packet.
std::string changed(std::string packet, std::size_t index, std::uint32_t value) {
  packet.replace(index * sizeof value, sizeof value, reinterpret_cast<const char*>(&value),
                 sizeof value);
  return packet;
}

TEST(FetchPackets, OfAnotherLengthMarkOrNumberAreNone) {
  const std::string ready = encode(FetchReady{});
  const std::string result = encode(FetchResult{});
  EXPECT_FALSE(decodeReady(result));
  EXPECT_FALSE(decodeResult(ready));
  EXPECT_FALSE(decodeResult(""));
  EXPECT_FALSE(decodeResult(result.substr(1)));
  EXPECT_FALSE(decodeResult(result + '\0'));
  EXPECT_FALSE(decodeReady(ready + '\0'));
  EXPECT_FALSE(decodeResult(changed(result, 0, 1)));
  EXPECT_FALSE(decodeResult(changed(result, 1, 2)));
  EXPECT_FALSE(decodeReady(changed(ready, 1, 3)));
  EXPECT_FALSE(decodeReady(changed(ready, 2, 2)));
}

TEST(FetchPackets, ATextWithoutItsEndIsNone) {
  std::string result = encode(FetchResult{});
  result.replace(result.size() - kErrorBytes, kErrorBytes, kErrorBytes, 'x');
  EXPECT_FALSE(decodeResult(result));
  result.back() = '\0';
  EXPECT_TRUE(decodeResult(result));
}

}  // namespace
