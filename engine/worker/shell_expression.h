// shExpMatch's shell expressions.
//
// Such an expression becomes a regular expression: "." stands for itself, "?" for ".", "*" for
// ".*", everything else keeps its meaning in a regular expression of the language. An expression
// without other special characters is matched here, without a regular expression; helpers.js has
// the engine match the rest.
//
// Texts are UTF-16 code units, which a regular expression without flags sees: "?" is one unit, and
// like "*" it matches no line end (LF, CR, U+2028, U+2029).
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
