// shExpMatch's shell expressions.
//
// A shell expression is translated into a regular expression of the language: "." becomes "\.", "?"
// becomes ".", "*" becomes ".*", and everything else stays. An expression without other special
// characters is matched here, without a regular expression. For all other expressions, helpers.js
// makes a regular expression for the engine.
//
// Texts are UTF-16 code units, as in a regular expression without flags: "?" matches one unit. "?"
// and "*" do not match line ends (LF, CR, U+2028, U+2029).
#pragma once

#include <string>
#include <string_view>

namespace pac_worker {

/// True if `expression` has no character with a meaning in regular expressions, apart from ".", "?"
/// and "*".
bool isPlainShellExpression(std::string_view expression);

/// Matches the whole of `text` against a plain expression. It needs at most size(text) *
/// size(expression) steps, and no memory.
bool matchesShellExpression(std::u16string_view text, std::u16string_view expression);
/// The same for texts of ASCII characters.
bool matchesShellExpression(std::string_view text, std::string_view expression);

}  // namespace pac_worker
