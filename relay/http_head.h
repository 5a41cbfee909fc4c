// The head of an HTTP/1 message, read strictly.
//
// A head that two readers could understand in two ways is how a request is smuggled past one of
// them. So this reader accepts one reading or none: lines end with CR LF, no control character
// stands anywhere, no line is folded, a body has one length. What it accepts it can also write
// again.
//
// Pure functions of their arguments, for any thread. A head is read from a text that the caller
// keeps as long as the head lives, because names and values are views of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace relay {

/// Longest head that is read, in bytes: browsers with many cookies stay below 32 KiB.
inline constexpr std::size_t kMaxHeadBytes = 64U << 10U;
/// Most fields of a head, and of the trailers of a body. Servers take 100 or less.
inline constexpr std::size_t kMaxFields = 200;
/// Longest length of a body that is believed: 2^60 bytes.
inline constexpr std::uint64_t kMaxBodyBytes = std::uint64_t{1} << 60U;

struct Field {
  std::string_view name;
  std::string_view value;  ///< without blanks around it
};

enum class BodyKind : std::uint8_t { kNone, kLength, kChunked, kUntilClose };

/// How the end of a message is found.
struct Body {
  BodyKind kind = BodyKind::kNone;
  std::uint64_t length = 0;  ///< of kLength, in bytes
};

class Fields {
 public:
  /// @return the first value of `name`, whatever its case; a view without data if there is none
  std::string_view find(std::string_view name) const;
  std::size_t count(std::string_view name) const;
  bool has(std::string_view name) const { return count(name) != 0; }
  /// Whether one of the comma-separated words of the fields `name` is `word`, whatever its case.
  bool hasWord(std::string_view name, std::string_view word) const;

  std::vector<Field> list;
};

struct RequestHead {
  std::string_view method;
  std::string_view target;
  bool isHttp11 = false;
  Fields fields;
  Body body;
};

struct ResponseHead {
  unsigned status = 0;      ///< 100 to 999
  std::string_view reason;  ///< may be empty
  bool isHttp11 = false;
  Fields fields;
  Body body;
  /// A body that had two lengths was read as chunked, as browsers do; its connection must end.
  bool isDoubtful = false;
};

/// Why a head was refused: an HTTP status and one line for people. Status 0: not refused.
struct HeadProblem {
  unsigned status = 0;
  const char* text = "";
};

/// @return the bytes of the head at the beginning of `bytes`, with the empty line at its end; 0 if
///         the empty line has not come yet. Looks from `from` on, which the caller has searched up
///         to
std::size_t headLength(std::string_view bytes, std::size_t from = 0);

/// Reads a request's whole head. `head` ends with its empty line.
HeadProblem readRequestHead(std::string_view head, RequestHead& request);

/// Reads a response's whole head. `method` is that of the request: it decides about the body.
HeadProblem readResponseHead(std::string_view head, std::string_view method,
                             ResponseHead& response);

/// Reads the lines between a last chunk and the empty line, CR LF at the end of each. Fields that
/// belong to the head, such as Host or Content-Length, are refused.
HeadProblem readTrailers(std::string_view lines, Fields& trailers);

/// Whether `name` is a token of RFC 9110.
bool isToken(std::string_view name);

/// Calls `take(word)` for each non-empty word of a comma-separated value; ends when it returns
/// true.
/// @return whether a call returned true
template <typename Take>
bool anyWord(std::string_view value, Take take) {
  while (!value.empty()) {
    const auto comma = value.find(',');
    auto word = value.substr(0, comma);
    value = comma == std::string_view::npos ? std::string_view() : value.substr(comma + 1);
    while (!word.empty() && (word.front() == ' ' || word.front() == '\t')) word.remove_prefix(1);
    while (!word.empty() && (word.back() == ' ' || word.back() == '\t')) word.remove_suffix(1);
    if (!word.empty() && take(word)) return true;
  }
  return false;
}

}  // namespace relay
