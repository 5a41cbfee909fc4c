// The bytes of an HTTP/1 body, followed as they pass.
//
// A chunked body is read strictly, and written again in a form of the relay's own: extensions of
// chunks are dropped, and trailers are checked and stay behind the last chunk. So what a client or
// a server can hide in this form does not reach the other side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "relay/http_head.h"

namespace relay {

/// Longest line of a chunk's size with its extensions, in bytes.
inline constexpr std::size_t kMaxChunkLine = 4096;
/// Longest trailers of a body, in bytes.
inline constexpr std::size_t kMaxTrailerBytes = 16U << 10U;

/// Follows one body. Any thread, one at a time.
class BodyReader {
 public:
  /// @param keepsChunks whether a chunked body stays chunked; false: it is written without chunks
  explicit BodyReader(const Body& body, bool keepsChunks = true);

  /// Takes bytes of the body from the beginning of `bytes`, and adds to `out` what is to be
  /// written. Bytes behind the end of the body are not taken.
  /// @return the number of bytes that were taken; see also problem()
  std::size_t take(std::string_view bytes, std::string& out);

  /// The stream ended. A body of kUntilClose is complete then.
  void streamEnded();

  bool isComplete() const { return mState == State::kEnd; }
  /// A line for people if the body is broken; nothing more is taken then. Else an empty text.
  const char* problem() const { return mProblem; }

 private:
  enum class State : std::uint8_t { kPlain, kSize, kData, kDataEnd, kTrailers, kEnd };

  std::size_t takePlain(std::string_view bytes, std::string& out);
  std::size_t takeLine(std::string_view bytes, std::size_t limit);
  void endSize(std::string& out);
  void endTrailerLine(std::string& out);
  std::size_t takeDataEnd(std::string_view bytes, std::string& out);
  std::size_t fail(const char* problem);

  State mState;
  const bool mKeepsChunks;
  const bool mIsUntilClose;
  bool mHasLine = false;    ///< mLine is a whole line, without its CR LF
  std::uint64_t mRest = 0;  ///< bytes of this chunk, or of the body
  std::string mLine;        ///< what has come of a line
  std::string mTrailers;    ///< lines with their ends
  const char* mProblem = "";
};

}  // namespace relay
