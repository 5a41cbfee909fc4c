// A strict reader of the head of an HTTP/1 message.
//
// Request smuggling needs a head that two readers understand differently. This reader refuses such
// a head. In an accepted head, each line ends with CR LF, there is no control character, no line is
// folded, and the length of the body has only one meaning. The relay can write every head that the
// reader accepts.
//
// All functions are pure and may run on any thread. Names and values of a head are views of the
// text that was read. So the caller must keep this text as long as the head.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace relay {

/// Longest head that the relay reads, in bytes. Browsers with many cookies stay below 32 KiB.
inline constexpr std::size_t kMaxHeadBytes = 64U << 10U;
/// Maximum number of fields of a head, and of the trailers of a body. Common servers accept 100 or
/// fewer.
inline constexpr std::size_t kMaxFields = 200;
/// Longest body length that the reader accepts: 2^60 bytes.
inline constexpr std::uint64_t kMaxBodyBytes = std::uint64_t{1} << 60U;

struct Field {
  std::string_view name;
  std::string_view value;  ///< without blanks around it
};

enum class BodyKind : std::uint8_t { kNone, kLength, kChunked, kUntilClose };

/// How the reader finds the end of a body.
struct Body {
  BodyKind kind = BodyKind::kNone;
  std::uint64_t length = 0;  ///< for kLength, in bytes
};

class Fields {
 public:
  /// @return the first value of `name`, in any letter case; a view without data if there is none
  std::string_view find(std::string_view name) const;
  std::size_t count(std::string_view name) const;
  bool has(std::string_view name) const { return count(name) != 0; }
  /// Whether the fields `name` contain `word`, in any letter case. Their values are words with
  /// commas between them.
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
  /// The head has Transfer-Encoding and also Content-Length. Like browsers, the relay reads the
  /// body as chunked. The connection to the server must end after this body.
  bool isDoubtful = false;
};

/// Why a head was refused: an HTTP status and one line for people. With status 0, the head was
/// accepted.
struct HeadProblem {
  unsigned status = 0;
  const char* text = "";
};

/// @return the length of the head at the start of `bytes`, in bytes, including the empty line at
///         its end; 0 if the empty line has not arrived yet
/// @param from where the search starts; the bytes before it were searched in an earlier call
std::size_t headLength(std::string_view bytes, std::size_t from = 0);

/// Reads the whole head of a request. `head` ends with the empty line.
HeadProblem readRequestHead(std::string_view head, RequestHead& request);

/// Reads the whole head of a response. `method` is the method of the request. The method decides
/// whether there is a body.
HeadProblem readResponseHead(std::string_view head, std::string_view method,
                             ResponseHead& response);

/// Reads the trailers: the lines between the last chunk and the empty line. Each ends with CR LF.
/// Fields that only a head may have, such as Host or Content-Length, are an error.
HeadProblem readTrailers(std::string_view lines, Fields& trailers);

/// Whether `name` is a token as in RFC 9110.
bool isToken(std::string_view name);

/// Calls `take(word)` for each non-empty word of a comma-separated value, until a call returns
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
