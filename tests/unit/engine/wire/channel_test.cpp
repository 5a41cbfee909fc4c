#include "engine/wire/channel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <utility>

namespace {

using namespace pac_engine;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct Pair {
  Channel one;
  Channel other;
};

Pair makePair() {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  return {Channel(UniqueFd(ends[0])), Channel(UniqueFd(ends[1]))};
}

TEST(Channel, KeepsMessagesApart) {
  auto pair = makePair();
  ASSERT_TRUE(pair.one.send("first"));
  ASSERT_TRUE(pair.one.send("second"));
  EXPECT_EQ(pair.other.receive(), Receipt::kMessage);
  EXPECT_EQ(pair.other.message(), "first");
  EXPECT_EQ(pair.other.receive(), Receipt::kMessage);
  EXPECT_EQ(pair.other.message(), "second");
}

TEST(Channel, CarriesTheLongestMessageAndShowsThatALongerOneIsLonger) {
  auto pair = makePair();
  ASSERT_TRUE(pair.one.send(std::string(kMaxMessageBytes, 'x')));
  EXPECT_EQ(pair.other.receive(), Receipt::kMessage);
  EXPECT_EQ(pair.other.message().size(), kMaxMessageBytes);
  ASSERT_TRUE(pair.one.send(std::string(kMaxMessageBytes + 1, 'x')));
  EXPECT_EQ(pair.other.receive(), Receipt::kMessage);
  EXPECT_GT(pair.other.message().size(), kMaxMessageBytes);
}

TEST(Channel, IsTooLateWhenNothingComesByTheDeadline) {
  auto pair = makePair();
  const auto deadline = steady_clock::now() + milliseconds(30);
  EXPECT_EQ(pair.one.receive(deadline), Receipt::kTooLate);
  EXPECT_GE(steady_clock::now(), deadline);
  EXPECT_EQ(pair.one.receive(deadline), Receipt::kTooLate);
}

TEST(Channel, TakesWhatIsThereEvenAfterTheDeadline) {
  auto pair = makePair();
  ASSERT_TRUE(pair.one.send("x"));
  EXPECT_EQ(pair.other.receive(steady_clock::now() - milliseconds(1)), Receipt::kMessage);
}

TEST(Channel, SeesTheOtherEndClose) {
  auto pair = makePair();
  { const auto closed = std::move(pair.one); }
  EXPECT_EQ(pair.other.receive(), Receipt::kEnd);
  EXPECT_EQ(pair.other.receive(steady_clock::now() + milliseconds(1000)), Receipt::kEnd);
  EXPECT_FALSE(pair.other.send("x"));
}

TEST(Channel, GivesTheLastMessagesOfAnEndThatReadNothing) {
  auto pair = makePair();
  ASSERT_TRUE(pair.one.send("never read"));
  {
    auto closed = std::move(pair.other);
    ASSERT_TRUE(closed.send("last words"));
  }
  EXPECT_EQ(pair.one.receive(), Receipt::kMessage);
  EXPECT_EQ(pair.one.message(), "last words");
  EXPECT_EQ(pair.one.receive(), Receipt::kEnd);
}

TEST(Channel, EndsForBothWhenOneHangsUp) {
  auto pair = makePair();
  pair.one.hangUp();
  EXPECT_EQ(pair.other.receive(), Receipt::kEnd);
  EXPECT_FALSE(pair.other.send("x"));
  EXPECT_FALSE(pair.one.send("x"));
}

TEST(Channel, DoesNotWaitForAReaderThatNeverReads) {
  auto pair = makePair();
  const std::string message(kMaxMessageBytes, 'x');
  int sent = 0;
  while (sent < 1000 && pair.one.send(message)) ++sent;
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 1000);
}

}  // namespace
