// Follows the bytes of an HTTP/1 body while they pass through the relay.
//
// The reader accepts only a strictly correct chunked body, and the relay writes the chunks in its
// own form. It drops the extensions of chunks. It checks the trailers and sends them after the last
// chunk. So neither side can hide content for the other side in the chunk format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "relay/http_head.h"

namespace relay {

/// Longest size line of a chunk with its extensions, in bytes.
inline constexpr std::size_t kMaxChunkLine = 4096;
/// Longest trailers of a body, in bytes.
inline constexpr std::size_t kMaxTrailerBytes = 16U << 10U;

/// Follows the bytes of one body. Any thread may use an object, but only one thread at a time.
class BodyReader {
 public:
  /// @param keepsChunks whether a chunked body stays chunked; if false, it is written without
  /// chunks
  explicit BodyReader(const Body& body, bool keepsChunks = true);

  /// Reads bytes of the body from the start of `bytes`. Appends to `out` the bytes that the relay
  /// forwards. It does not read bytes after the end of the body.
  /// @return the number of bytes read; see also problem()
  std::size_t take(std::string_view bytes, std::string& out);

  /// Reports to this reader that the stream has ended. This completes a body of kUntilClose.
  void streamEnded();

  bool isComplete() const { return mState == State::kEnd; }
  /// One line for people if the body is broken; else an empty text. If the body is broken, take()
  /// reads nothing more.
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
  std::uint64_t mRest = 0;  ///< remaining bytes of this chunk, or of the body
  std::string mLine;        ///< the received part of a line
  std::string mTrailers;    ///< the lines of the trailers, each with its CR LF
  const char* mProblem = "";
};

}  // namespace relay
