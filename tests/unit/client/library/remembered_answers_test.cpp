#include "client/library/remembered_answers.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "client/library/client.h"

using client::library::AnswerRef;
using client::library::RememberedAnswers;
using client::library::SharedAnswers;

namespace {

constexpr std::size_t kPlenty = 1'000'000;

AnswerRef answerOf(const std::string& entry) {
  return AnswerRef(new proxymanager_answer({"pacurl", {client::parseEntry(entry)}}));
}

std::string textOf(const AnswerRef& answer) {
  return answer->entries()[0].text;
}

}  // namespace

TEST(RememberedAnswersTest, GivesTheAnswerOfTheWholeUrl) {
  RememberedAnswers remembered(10, kPlenty);
  remembered.add("http://a/1", answerOf("PROXY one:1"));
  remembered.add("http://a/2", answerOf("PROXY two:2"));
  EXPECT_EQ(textOf(remembered.find("http://a/1")), "PROXY one:1");
  EXPECT_EQ(textOf(remembered.find("http://a/2")), "PROXY two:2");
  EXPECT_FALSE(remembered.find("http://a/"));
  EXPECT_FALSE(remembered.find("HTTP://a/1"));
}

TEST(RememberedAnswersTest, PutsALaterAnswerInPlaceOfAnEarlierOne) {
  RememberedAnswers remembered(10, kPlenty);
  remembered.add("u", answerOf("PROXY a-rather-long-name-that-is-kept-elsewhere.example:1"));
  remembered.add("u", answerOf("PROXY two:2"));
  EXPECT_EQ(textOf(remembered.find("u")), "PROXY two:2");
  EXPECT_EQ(remembered.count(), 1U);
  EXPECT_EQ(remembered.bytes(), RememberedAnswers::bytesOf("u", remembered.find("u")));
}

TEST(RememberedAnswersTest, ForgetsTheOneUsedLongestAgoPastItsCount) {
  RememberedAnswers remembered(3, kPlenty);
  for (const char* url : {"a", "b", "c"}) remembered.add(url, answerOf("DIRECT"));
  EXPECT_EQ(remembered.count(), 3U);
  EXPECT_TRUE(remembered.find("a"));
  remembered.add("d", answerOf("DIRECT"));
  EXPECT_EQ(remembered.count(), 3U);
  EXPECT_FALSE(remembered.find("b"));
  for (const char* url : {"a", "c", "d"}) EXPECT_TRUE(remembered.find(url)) << url;
}

TEST(RememberedAnswersTest, ForgetsPastItsBytes) {
  const auto one = RememberedAnswers::bytesOf("a", answerOf("DIRECT"));
  RememberedAnswers remembered(10, 2 * one);
  remembered.add("a", answerOf("DIRECT"));
  remembered.add("b", answerOf("DIRECT"));
  EXPECT_EQ(remembered.bytes(), 2 * one);
  remembered.add("cc", answerOf("DIRECT"));  // one byte too many
  EXPECT_EQ(remembered.count(), 1U);
  EXPECT_TRUE(remembered.find("cc"));
}

TEST(RememberedAnswersTest, DoesNotRememberWhatIsLargerThanAllItMayKeep) {
  const auto one = RememberedAnswers::bytesOf("aa", answerOf("DIRECT"));
  RememberedAnswers remembered(10, one);
  remembered.add("aa", answerOf("DIRECT"));
  remembered.add("aaa", answerOf("DIRECT"));
  EXPECT_TRUE(remembered.find("aa"));
  EXPECT_FALSE(remembered.find("aaa"));
  RememberedAnswers none(0, kPlenty);
  none.add("a", answerOf("DIRECT"));
  EXPECT_FALSE(none.find("a"));
}

TEST(RememberedAnswersTest, ForgetsEverythingAtOnceAndLeavesAnswersToTheirHolders) {
  RememberedAnswers remembered(10, kPlenty);
  remembered.add("a", answerOf("PROXY one:1"));
  const auto held = remembered.find("a");
  remembered.clear();
  EXPECT_FALSE(remembered.find("a"));
  EXPECT_EQ(remembered.bytes(), 0U);
  EXPECT_EQ(textOf(held), "PROXY one:1");
}

TEST(RememberedAnswersTest, TheClientsBoundsHoldSomeHundredsOfUsualAnswers) {
  constexpr auto kMaxRemembered = client::library::SharedAnswers::kMaxAnswers;
  RememberedAnswers remembered(kMaxRemembered, client::library::SharedAnswers::kMaxBytes);
  const auto url = [](std::size_t i) {
    return "http://www.example.org/of/a/usual/length/" + std::to_string(100000 + i);
  };
  for (std::size_t i = 0; i <= kMaxRemembered; ++i) {
    EXPECT_EQ(remembered.count(), i);
    remembered.add(url(i), answerOf("PROXY cache.example.org:8080"));
  }
  EXPECT_EQ(remembered.count(), kMaxRemembered);
  EXPECT_FALSE(remembered.find(url(0)));
  EXPECT_TRUE(remembered.find(url(1)));
}

TEST(SharedAnswersTest, AThreadFindsTheCopyThatIsItsOwn) {
  SharedAnswers shared;
  const auto added = answerOf("PROXY one:1");
  shared.add("a", added);
  const auto mine = shared.find("a");
  EXPECT_EQ(textOf(mine), "PROXY one:1");
  EXPECT_NE(mine.get(), added.get());
  EXPECT_EQ(shared.find("a").get(), mine.get());
  std::thread([&] {
    const auto other = shared.find("a");
    EXPECT_EQ(textOf(other), "PROXY one:1");
    EXPECT_NE(other.get(), mine.get());
  }).join();
}

TEST(SharedAnswersTest, NoCopyOutlivesAChange) {
  SharedAnswers shared;
  shared.add("a", answerOf("PROXY one:1"));
  shared.add("b", answerOf("PROXY one:1"));
  EXPECT_TRUE(shared.find("a"));
  EXPECT_TRUE(shared.find("b"));
  std::thread([&] { shared.clear(); }).join();
  EXPECT_FALSE(shared.find("a"));
  shared.add("a", answerOf("PROXY two:2"));
  EXPECT_EQ(textOf(shared.find("a")), "PROXY two:2");
  // The old answer stays forgotten, even after this thread's part has copied a new answer.
  EXPECT_FALSE(shared.find("b"));
}

TEST(SharedAnswersTest, MoreThreadsThanPartsFindTheSame) {
  SharedAnswers shared;
  shared.add("a", answerOf("PROXY one:1"));
  for (std::size_t i = 0; i <= SharedAnswers::kParts; ++i) {
    std::thread([&] { EXPECT_EQ(textOf(shared.find("a")), "PROXY one:1"); }).join();
  }
}

TEST(SharedAnswersTest, FindsWhatAThreadHasNoRoomToCopy) {
  SharedAnswers shared;
  const auto url = [](std::size_t i) { return "http://" + std::to_string(i); };
  for (std::size_t i = 0; i <= SharedAnswers::kMaxCopies; ++i) {
    shared.add(url(i), answerOf("PROXY p" + std::to_string(i) + ":1"));
  }
  for (int round = 0; round < 2; ++round) {
    for (std::size_t i = 0; i <= SharedAnswers::kMaxCopies; ++i) {
      EXPECT_EQ(textOf(shared.find(url(i))), "PROXY p" + std::to_string(i) + ":1");
    }
  }
}
