#include "engine/wire/protocol.h"

#include <gtest/gtest.h>

#include <ostream>
#include <random>
#include <string>
#include <variant>

namespace {

using namespace pac_engine;

template <typename Message>
Message fromLibrary(const std::string& bytes) {
  const auto message = decodeFromLibrary(bytes);
  if (!message || !std::holds_alternative<Message>(*message)) {
    ADD_FAILURE() << "not decoded";
    return {};
  }
  return std::get<Message>(*message);
}

template <typename Message>
Message fromWorker(const std::string& bytes) {
  const auto message = decodeFromWorker(bytes);
  if (!message || !std::holds_alternative<Message>(*message)) {
    ADD_FAILURE() << "not decoded";
    return {};
  }
  return std::get<Message>(*message);
}

std::string encoded(const FromLibrary& message) {
  return encode(message);
}
std::string encoded(const FromWorker& message) {
  return encode(message);
}

TEST(Protocol, CarriesTheStartWithAndWithoutAClock) {
  const auto plain = encoded(FromLibrary(Start{5000, std::nullopt}));
  EXPECT_EQ(fromLibrary<Start>(plain).timeLimitMs, 5000U);
  EXPECT_FALSE(fromLibrary<Start>(plain).clock);
  const auto stopped = encoded(FromLibrary(Start{1, -7}));
  EXPECT_EQ(fromLibrary<Start>(stopped).clock, -7);
}

TEST(Protocol, CarriesAQuestion) {
  const auto bytes = encoded(FromLibrary(Evaluate{77, "http://h/", std::string_view("h\0x", 3)}));
  const auto message = fromLibrary<Evaluate>(bytes);
  EXPECT_EQ(message.serial, 77U);
  EXPECT_EQ(message.url, "http://h/");
  EXPECT_EQ(message.host, std::string_view("h\0x", 3));
}

TEST(Protocol, CarriesAddresses) {
  const auto bytes = encoded(FromLibrary(Addresses{{"10.0.0.1", "", "::1"}}));
  const std::vector<std::string> expected{"10.0.0.1", "", "::1"};
  EXPECT_EQ(fromLibrary<Addresses>(bytes).texts, expected);
  const auto none = encoded(FromLibrary(Addresses{}));
  EXPECT_TRUE(fromLibrary<Addresses>(none).texts.empty());
}

TEST(Protocol, CarriesWhatAWorkerAsksAndSays) {
  const auto resolve = encoded(FromWorker(Resolve{AddressFamily::kAny, "host"}));
  EXPECT_EQ(fromWorker<Resolve>(resolve).name, "host");
  EXPECT_EQ(fromWorker<Resolve>(resolve).family, AddressFamily::kAny);
  const auto own = encoded(FromWorker(OwnAddresses{AddressFamily::kIpv4}));
  EXPECT_EQ(fromWorker<OwnAddresses>(own).family, AddressFamily::kIpv4);
  const auto alert = encoded(FromWorker(Alert{"text"}));
  EXPECT_EQ(fromWorker<Alert>(alert).text, "text");
  fromWorker<Ready>(encoded(FromWorker(Ready{})));
}

TEST(Protocol, CarriesEveryKindOfEnd) {
  const auto refused = encoded(FromWorker(Refused{12, "SyntaxError"}));
  EXPECT_EQ(fromWorker<Refused>(refused).line, 12U);
  EXPECT_EQ(fromWorker<Refused>(refused).message, "SyntaxError");
  const auto answer = encoded(FromWorker(Answer{9, "DIRECT"}));
  EXPECT_EQ(fromWorker<Answer>(answer).serial, 9U);
  EXPECT_EQ(fromWorker<Answer>(answer).result, "DIRECT");
  const auto none = encoded(FromWorker(NoAnswer{10, 3, "Error"}));
  EXPECT_EQ(fromWorker<NoAnswer>(none).serial, 10U);
  EXPECT_EQ(fromWorker<NoAnswer>(none).line, 3U);
  EXPECT_EQ(fromWorker<NoAnswer>(none).message, "Error");
}

struct Limit {
  const char* name;
  std::size_t limit;
  std::string (*make)(const std::string& text);
};

/// Prints the name of a case, which becomes a part of the test's name.
std::ostream& operator<<(std::ostream& stream, const Limit& limit) {
  return stream << limit.name;
}

class TextLimits : public ::testing::TestWithParam<Limit> {};

TEST_P(TextLimits, AreTakenAtTheLimitAndNotPastIt) {
  const auto decodes = [](const std::string& bytes) {
    return decodeFromLibrary(bytes).has_value() || decodeFromWorker(bytes).has_value();
  };
  EXPECT_TRUE(decodes(GetParam().make(std::string(GetParam().limit, 'x'))));
  EXPECT_FALSE(decodes(GetParam().make(std::string(GetParam().limit + 1, 'x'))));
}

INSTANTIATE_TEST_SUITE_P(
    Protocol, TextLimits,
    ::testing::Values(
        Limit{"Url", kMaxUrlBytes,
              [](const std::string& x) {
                return encoded(FromLibrary(Evaluate{1, x, ""}));
              }},
        Limit{"Host", kMaxHostBytes,
              [](const std::string& x) {
                return encoded(FromLibrary(Evaluate{1, "", x}));
              }},
        Limit{"Address", kMaxAddressBytes,
              [](const std::string& x) { return encoded(FromLibrary(Addresses{{x}})); }},
        Limit{"AddressCount", kMaxAddresses,
              [](const std::string& x) {
                return encoded(FromLibrary(Addresses{std::vector<std::string>(x.size(), "1")}));
              }},
        Limit{"Result", kMaxResultBytes,
              [](const std::string& x) {
                return encoded(FromWorker(Answer{1, x}));
              }},
        Limit{"Name", kMaxNameBytes,
              [](const std::string& x) {
                return encoded(FromWorker(Resolve{AddressFamily::kIpv4, x}));
              }},
        Limit{"Alert", kMaxAlertBytes,
              [](const std::string& x) { return encoded(FromWorker(Alert{x})); }},
        Limit{"Problem", kMaxProblemBytes,
              [](const std::string& x) {
                return encoded(FromWorker(NoAnswer{1, 1, x}));
              }},
        Limit{"Refusal", kMaxProblemBytes,
              [](const std::string& x) {
                return encoded(FromWorker(Refused{1, x}));
              }}),
    [](const auto& test) { return test.param.name; });

std::vector<std::string> oneOfEachKind() {
  return {encoded(FromLibrary(Start{5000, 1})),
          encoded(FromLibrary(Evaluate{1, "http://h/", "h"})),
          encoded(FromLibrary(Addresses{{"10.0.0.1", "::1"}})),
          encoded(FromWorker(Ready{})),
          encoded(FromWorker(Refused{1, "no"})),
          encoded(FromWorker(Resolve{AddressFamily::kAny, "h"})),
          encoded(FromWorker(OwnAddresses{AddressFamily::kAny})),
          encoded(FromWorker(Alert{"a"})),
          encoded(FromWorker(Answer{1, "DIRECT"})),
          encoded(FromWorker(NoAnswer{1, 1, "no"}))};
}

TEST(Protocol, TakesNoMessageThatIsCutShortOrHasSomethingLeftOver) {
  for (const auto& whole : oneOfEachKind()) {
    for (std::size_t length = 0; length < whole.size(); ++length) {
      EXPECT_FALSE(decodeFromLibrary(whole.substr(0, length)));
      EXPECT_FALSE(decodeFromWorker(whole.substr(0, length)));
    }
    EXPECT_FALSE(decodeFromLibrary(whole + '\0'));
    EXPECT_FALSE(decodeFromWorker(whole + '\0'));
  }
}

TEST(Protocol, TakesNoStartWithATimeWhereItHasNoClock) {
  auto start = encoded(FromLibrary(Start{5000, std::nullopt}));
  ASSERT_TRUE(decodeFromLibrary(start));
  start.back() = 1;
  EXPECT_FALSE(decodeFromLibrary(start));
}

TEST(Protocol, TakesNoMessageOfTheOtherDirection) {
  const auto all = oneOfEachKind();
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(decodeFromLibrary(all[i]).has_value(), i < 3) << i;
    EXPECT_EQ(decodeFromWorker(all[i]).has_value(), i >= 3) << i;
  }
}

TEST(Protocol, TakesNoUnknownKindAndNoUnknownFlag) {
  for (const int kind : {0, 11, 12, 127, 255}) {
    const std::string bytes(1, static_cast<char>(kind));
    EXPECT_FALSE(decodeFromLibrary(bytes));
    EXPECT_FALSE(decodeFromWorker(bytes));
  }
  auto own = encoded(FromWorker(OwnAddresses{AddressFamily::kAny}));
  own.back() = 2;
  EXPECT_FALSE(decodeFromWorker(own));
}

TEST(Protocol, TakesNoResultThatIsNotAscii) {
  EXPECT_TRUE(decodeFromWorker(encoded(FromWorker(Answer{1, "\x7f"}))));
  EXPECT_FALSE(decodeFromWorker(encoded(FromWorker(Answer{1, "\x80"}))));
}

TEST(Protocol, TakesNoLengthThatReachesPastTheMessage) {
  auto alert = encoded(FromWorker(Alert{"abc"}));
  for (const char length : {'\x04', '\x7f', '\xff'}) {
    alert[1] = length;
    EXPECT_FALSE(decodeFromWorker(alert));
  }
  alert[1] = alert[2] = alert[3] = alert[4] = '\xff';
  EXPECT_FALSE(decodeFromWorker(alert));
}

TEST(Protocol, BearsMessagesWithAnyByteChanged) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    for (auto bytes : oneOfEachKind()) {
      const auto where = random() % bytes.size();
      bytes[where] = static_cast<char>(random());
      // An accepted message is encoded to the same bytes again.
      if (const auto message = decodeFromWorker(bytes)) {
        EXPECT_EQ(encode(*message), bytes);
      }
      if (const auto message = decodeFromLibrary(bytes)) {
        const auto* const start = std::get_if<Start>(&*message);
        if (start == nullptr || start->clock) {
          EXPECT_EQ(encode(*message), bytes);
        }
      }
    }
  }
}

}  // namespace
