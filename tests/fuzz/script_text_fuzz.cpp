// Tests the conversion of a script's bytes to its text, and of texts to a log line. The results are
// well-formed UTF-8, have no control characters, and keep the promised length.
#include <algorithm>
#include <string>

#include "base/utf8.h"
#include "base/visible.h"
#include "engine/wire/protocol.h"
#include "engine/worker/script_text.h"
#include "engine/worker/utf8.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace pac_worker;

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Converts UTF-16 back to UTF-8. An unpaired surrogate is written like any other code point.
std::string utf8Of(std::u16string_view units) {
  std::string text;
  const auto put = [&text](char32_t bits) { text += static_cast<char>(bits); };
  for (std::size_t i = 0; i < units.size(); ++i) {
    char32_t code = units[i];
    const bool pair = code >= 0xD800 && code < 0xDC00 && i + 1 < units.size() &&
                      units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000;
    if (pair) code = 0x10000 + ((code - 0xD800) << 10U) + (char32_t{units[++i]} - 0xDC00);
    if (code < 0x80) {
      put(code);
      continue;
    }
    const int more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    put((0xFF00U >> static_cast<unsigned>(more + 1) & 0xFFU) |
        (code >> static_cast<unsigned>(6 * more)));
    for (int left = more - 1; left >= 0; --left)
      put(0x80U | (code >> static_cast<unsigned>(6 * left) & 0x3FU));
  }
  return text;
}

void checkScript(const std::string& bytes) {
  const auto script = decodeScript(bytes);
  require(base::isUtf8(script), "a script's text is UTF-8");
  require(script.find_first_of(std::string_view("\0\r", 2)) == script.npos, "no NUL, no CR");
  require(script.size() <= 2 * bytes.size(), "two bytes for one at most");
  if (!script.starts_with(kByteOrderMark))
    require(decodeScript(script) == script, "what is decoded is its own text");
  if (base::isUtf8(bytes) && bytes.find_first_of(std::string_view("\0\r\xEF", 3)) == bytes.npos)
    require(script == bytes, "UTF-8 stays as it is");
  require(decodeScript(bytes + '\0' + bytes) == script, "a NUL ends a script");
}

void checkCuts(const std::string& text, std::size_t limit) {
  const auto cut = base::utf8Head(text, limit);
  require(cut.size() <= limit && text.starts_with(cut), "a cut is a beginning within its limit");
  if (!base::isUtf8(text)) return;
  require(base::isUtf8(cut), "no character is cut apart");
  require(cut.size() == text.size() || limit - cut.size() < 4, "no more is cut than one character");
  require(utf8Of(utf16Units(text)) == text, "UTF-16 says the same text");
}

void checkLines(const std::string& text, std::size_t limit) {
  const auto control = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
  const auto line = printableLine(text, limit);
  require(line.size() <= limit && base::isUtf8(line), "a line is UTF-8 within its limit");
  require(std::none_of(line.begin(), line.end(), control), "a line has no control character");
  require(printableLine(line, limit) == line, "a line stays as it is");
  const auto shown = base::visible(text);
  require(std::none_of(shown.begin(), shown.end(), control), "what is shown obeys nothing");
  require(shown.size() <= 4 * text.size(), "four characters for one at most");
  require(base::visible(shown) == shown, "what is shown is shown once");
  require(base::isUtf8(shown), "whatever it was, it is shown as UTF-8");
  for (const char16_t unit : utf16Units(shown))
    require(unit < 0x80 || unit >= 0xA0, "nor has it the control characters beyond ASCII");
  require(utf16Units(text).size() <= text.size(), "one unit for a byte at most");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(fuzz::textOf(data, size));
  const std::size_t limit = bytes.empty() ? 0 : static_cast<unsigned char>(bytes.back());
  checkScript(bytes);
  checkCuts(bytes, limit);
  checkLines(bytes, limit);
  return 0;
}
