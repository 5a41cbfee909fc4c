#include "dbus/last_reply.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr const char* kCaller = ":1.7";

/// A message with these texts, of whatever type: a reply's would need a call with a serial, which
/// only the bus gives.
DBus::SignalMessage saying(const Texts& texts) {
  DBus::SignalMessage message("/", "com.zentu.Test", "said");
  message.destination(kCaller);
  auto writer = message.writer();
  auto array = writer.new_array("s");
  for (const auto& text : texts) array.append_string(text.c_str());
  writer.close_container(array);
  return message;
}

Texts textsOf(const DBus::Message& reply) {
  Texts texts;
  for (auto reader = reply.reader().recurse(); !reader.at_end(); ++reader) {
    texts.emplace_back(reader.get_string());
  }
  return texts;
}

const Texts kTexts{"pacurl", "PROXY a:1", "DIRECT"};

class LastReplyTest : public testing::Test {
 protected:
  void keep(const Texts& texts, const char* caller = kCaller) {
    mLast.keep(caller, texts, saying(texts));
  }
  bool isKept(const Texts& texts) { return mLast.again(kCaller, 6, texts).has_value(); }

  LastReply mLast;
};

TEST_F(LastReplyTest, IsTheSameButForTheCallThatItAnswers) {
  keep(kTexts);
  const auto again = mLast.again(kCaller, 6, kTexts);
  ASSERT_TRUE(again);
  EXPECT_EQ(textsOf(*again), kTexts);
  EXPECT_STREQ(again->destination(), ":1.7");
  EXPECT_EQ(again->reply_serial(), 6);
  // And the one after it, whatever became of the first.
  EXPECT_EQ(mLast.again(kCaller, 7, kTexts)->reply_serial(), 7);
}

TEST_F(LastReplyTest, IsOfNoUseToAnotherClientOrForAnotherAnswer) {
  keep(kTexts);
  EXPECT_FALSE(mLast.again(":1.70", 6, kTexts));
  EXPECT_FALSE(mLast.again(nullptr, 6, kTexts));
  EXPECT_FALSE(isKept({"pacurl", "PROXY a:1"}));
  EXPECT_FALSE(isKept({"pacurl", "PROXY a:2", "DIRECT"}));
  EXPECT_TRUE(isKept(kTexts));
}

TEST_F(LastReplyTest, OfNobodyIsNotKeptAndTheOneBeforeIsForgotten) {
  keep(kTexts);
  keep(kTexts, nullptr);
  EXPECT_FALSE(isKept(kTexts));
}

TEST_F(LastReplyTest, IsKeptUpToSixteenTexts) {
  Texts texts(LastReply::kMaxTexts, "DIRECT");
  keep(texts);
  EXPECT_TRUE(isKept(texts));
  texts.emplace_back("DIRECT");
  keep(texts);
  EXPECT_FALSE(isKept(texts));
}

TEST_F(LastReplyTest, IsKeptUpToTwoThousandAndFortyEightBytes) {
  Texts texts{"manual", std::string(LastReply::kMaxBytes - 6, 'x')};
  keep(texts);
  EXPECT_TRUE(isKept(texts));
  texts.back() += 'x';
  keep(texts);
  EXPECT_FALSE(isKept(texts));
}

}  // namespace
