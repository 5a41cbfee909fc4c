#include "engine/worker/shell_expression.h"

#include <gtest/gtest.h>

#include <random>

#include "engine/worker/script_engine.h"
#include "engine/worker/utf8.h"
#include "tests/unit/engine/worker/fake_environment.h"

namespace pac_worker {
namespace {

bool matches(std::string_view text, std::string_view expression) {
  return matchesShellExpression(text, expression);
}

TEST(ShellExpression, IsAnchoredAndCaseSensitive) {
  EXPECT_TRUE(matches("www.example.com", "www.example.com"));
  EXPECT_FALSE(matches("www.example.com", "www.example.co"));
  EXPECT_FALSE(matches("www.example.com", "ww.example.com"));
  EXPECT_FALSE(matches("www.example.com", "WWW.example.com"));
  EXPECT_FALSE(matches("wwwXexampleXcom", "www.example.com"));
  EXPECT_TRUE(matches("", ""));
  EXPECT_FALSE(matches("", "?"));
  EXPECT_FALSE(matches("a", ""));
}

TEST(ShellExpression, StarTakesAnyRunAndQuestionMarkOneCharacter) {
  EXPECT_TRUE(matches("www.example.com", "*.example.com"));
  EXPECT_TRUE(matches(".example.com", "*.example.com"));
  EXPECT_FALSE(matches("example.com", "*.example.com"));
  EXPECT_TRUE(matches("", "***"));
  EXPECT_TRUE(matches("abcabd", "*ab?"));
  EXPECT_TRUE(matches("aXbXc", "a*b*c"));
  EXPECT_FALSE(matches("aXbX", "a*b*c"));
  EXPECT_TRUE(matches("ab", "??"));
  EXPECT_FALSE(matches("ab", "?"));
}

TEST(ShellExpression, NeverCrossesALineEndButByItself) {
  for (const std::u16string end : {u"\n", u"\r", u"\u2028", u"\u2029"}) {
    EXPECT_FALSE(matchesShellExpression(u"a" + end + u"b", u"a*b"));
    EXPECT_FALSE(matchesShellExpression(u"a" + end + u"b", u"a?b"));
    EXPECT_TRUE(matchesShellExpression(u"a" + end + u"b", u"a" + end + u"b"));
    EXPECT_TRUE(matchesShellExpression(u"xa" + end + u"by", u"*a" + end + u"b*"));
  }
}

TEST(ShellExpression, CountsUtf16Units) {
  const std::u16string face = utf16Units("\xF0\x9F\x98\x80");
  EXPECT_FALSE(matchesShellExpression(face, u"?"));
  EXPECT_TRUE(matchesShellExpression(face, u"??"));
}

TEST(ShellExpression, IsPlainWithoutCharactersOfRegularExpressions) {
  EXPECT_TRUE(isPlainShellExpression("*.ex-ample.com/?a=b&c,d:e;f!g'h\"i<>~%#@_"));
  for (const char c : std::string_view("+[](){}\\^$|"))
    EXPECT_FALSE(isPlainShellExpression(std::string("a") + c)) << c;
}

// Generates texts from a small alphabet, so that many pairs match. The alphabet has line ends, a
// surrogate pair and each of its halves.
class Generator {
 public:
  std::string text(std::size_t most) { return of(kText, most); }
  std::string expression(std::size_t most) { return of(kExpression, most); }

 private:
  using Alphabet = std::vector<std::string>;
  std::string of(const Alphabet& alphabet, std::size_t most) {
    std::string made;
    for (std::size_t left = mRandom() % (most + 1); left > 0; --left)
      made += alphabet[mRandom() % alphabet.size()];
    return made;
  }
  const Alphabet kText = {"a",  "a",      "a",      "b",      "b",          ".",         "\n",
                          "\r", "\u2028", "\u2029", "\u00e4", "\U0001F600", "\U0001F600"};
  const Alphabet kExpression = {"a", "a", "b",  ".",  "*",      "*",      "*",
                                "?", "?", "\n", "\r", "\u2028", "\u00e4", "\U0001F600"};
  std::mt19937 mRandom{20250426};
};

// One evaluation compares many pairs, to save evaluations.
TEST(ShellExpression, AgreesWithTheEnginesRegularExpressions) {
  FakeEnvironment world;
  ScriptEngine engine(world);
  ASSERT_FALSE(engine.load(R"(
    function FindProxyForURL(url, host) {
      const [text, expression] = host.split("\0");
      const pattern = expression.replace(/\./g, "\\.").replace(/\*/g, ".*").replace(/\?/g, ".");
      let bits = "";
      // Each half of a surrogate pair on its own, too.
      for (const [t, e] of [[text, expression], [text.slice(1), expression],
                            [text, expression.slice(1)], [text.slice(0, -1), expression]]) {
        const p = e.replace(/\./g, "\\.").replace(/\*/g, ".*").replace(/\?/g, ".");
        const wanted = new RegExp("^" + p + "$").test(t);
        if (shExpMatch(t, e) !== wanted) return JSON.stringify([t, e, wanted]);
        bits += wanted ? "1" : "0";
      }
      return bits;
    })"));
  Generator generator;
  int pairs = 0;
  int matched = 0;
  while (pairs < PAIRS) {
    const std::string pair = generator.text(10) + '\0' + generator.expression(8);
    const Reply answer = engine.evaluate("", pair);
    ASSERT_TRUE(answer.result) << answer.problem.message;
    ASSERT_EQ(answer.result->find_first_not_of("01"), std::string::npos) << *answer.result;
    pairs += static_cast<int>(answer.result->size());
    matched += static_cast<int>(std::count(answer.result->begin(), answer.result->end(), '1'));
  }
  EXPECT_GT(matched, pairs / 50) << "too few pairs match to mean anything";
}

}  // namespace
}  // namespace pac_worker
