// Compares shExpMatch's native matching with the engine's regular expressions, which it replaces.
// The input is the text, a "|" and the expression. A "~" in the text or in the expression means a
// character that is hard to type.
#include <algorithm>
#include <string>

#include "base/utf8.h"
#include "engine/worker/script_engine.h"
#include "engine/worker/shell_expression.h"
#include "engine/worker/utf8.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"
#include "tests/unit/engine/worker/fake_environment.h"

using fuzz::require;
using namespace pac_worker;

namespace {

// This script evaluates shExpMatch, and a regular expression with the same meaning.
constexpr char kScript[] = R"(
function viaRegExp(text, expression) {
  var to = { '*': '.*', '?': '.', '.': '\\.' };
  var pattern = expression.replace(/[*?.]/g, function (c) { return to[c]; });
  return new RegExp('^' + pattern + '$').test(text);
}
function tried(match, text, expression) {
  try { return match(text, expression) ? 'yes' : 'no'; } catch (error) { return error.name; }
}
function FindProxyForURL(text, expression) {
  return tried(shExpMatch, text, expression) + '/' + tried(viaRegExp, text, expression);
}
)";

// With more stars, backtracking takes much longer (a power of the text's length) and shows nothing
// new.
constexpr std::ptrdiff_t kMostStars = 4;

class Trial {
 public:
  Trial() : mEngine(mWorld, limits()) {
    require(!mEngine.load(kScript), "the script that compares them loads");
  }
  Reply operator()(std::string_view text, std::string_view expression) {
    return mEngine.evaluate(text, expression);
  }

 private:
  static ScriptLimits limits() {
    ScriptLimits limits;
    // Only the fuzzer reports a slow input. During a replay of a corpus, the machine may be very
    // busy.
    limits.time = std::chrono::seconds(60);
    return limits;
  }
  FakeEnvironment mWorld;
  ScriptEngine mEngine;
};

std::string typed(std::string_view field) {
  constexpr std::string_view kHard[] = {"\n", "\r", "\xE2\x80\xA8", "\xF0\x9F\x98\x80", "\xC3\xA4"};
  std::string text;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '~' && i + 1 < field.size()) {
      text += kHard[static_cast<unsigned char>(field[++i] - '0') % std::size(kHard)];
    } else {
      text += field[i];
    }
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static auto& trial = *new Trial;  // never freed
  fuzz::Input input(data, size);
  const auto text = typed(input.upTo('|'));
  const auto expression = typed(input.rest());
  if (!base::isUtf8(text) || !base::isUtf8(expression)) return 0;
  if (std::count(expression.begin(), expression.end(), '*') > kMostStars) return 0;
  if (!isPlainShellExpression(expression)) return 0;

  const bool match = matchesShellExpression(utf16Units(text), utf16Units(expression));
  const auto answer = trial(text, expression);
  require(answer.result == (match ? "yes/yes" : "no/no"), "all three ways give one answer");
  const auto ascii = [](unsigned char c) { return c < 0x80; };
  if (std::all_of(text.begin(), text.end(), ascii) &&
      std::all_of(expression.begin(), expression.end(), ascii))
    require(matchesShellExpression(text, expression) == match, "bytes as units");
  return 0;
}
