// shExpMatch's shell expressions.
//
// Such an expression is a regular expression in disguise: "." stands for itself, "?" for ".", "*"
// for
// ".*", all else acts as in a regular expression of the language. Those that hold nothing else to
// act are matched here, without a regular expression; the rest is the engine's business.
//
// Texts are UTF-16 code units, what a regular expression without flags sees: "?" is one unit, and
// like "*" it matches no line end (LF, CR, U+2028, U+2029).
#pragma once

#include <string>
#include <string_view>

namespace pac_worker {

/// True where no unit of `expression` but ".", "?" and "*" has a meaning in regular expressions.
bool isPlainShellExpression(std::string_view expression);

/// Matches the whole of `text` against a plain expression. Takes size(text) * size(expression)
/// steps at most, and no memory.
bool matchesShellExpression(std::u16string_view text, std::u16string_view expression);
/// The same for texts of ASCII characters.
bool matchesShellExpression(std::string_view text, std::string_view expression);

/// The regular expression that `expression` stands for, anchored at both ends.
std::string shellExpressionAsRegExp(std::string_view expression);

}  // namespace pac_worker
