// Follows the bytes of an HTTP/1 body while they pass through the relay.
//
// The reader is strict with a chunked body, and the relay writes the chunks again in its own form.
// The relay drops the extensions of chunks. It checks the trailers, and sends them after the last
// chunk. So neither side can send hidden content to the other in the chunk format.
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

/// Follows one body. It may run on any thread, but on one at a time.
class BodyReader {
 public:
  /// @param keepsChunks whether a chunked body stays chunked; if false, it is written without
  /// chunks
  explicit BodyReader(const Body& body, bool keepsChunks = true);

  /// Takes bytes of the body from the start of `bytes`, and adds the bytes to write to `out`. It
  /// leaves bytes that follow the end of the body.
  /// @return the number of bytes taken; see also problem()
  std::size_t take(std::string_view bytes, std::string& out);

  /// The stream ended. This completes a body of kUntilClose.
  void streamEnded();

  bool isComplete() const { return mState == State::kEnd; }
  /// If the body is broken: one line for people, and take() takes nothing more. Else an empty text.
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
  std::string mLine;        ///< the received part of a line
  std::string mTrailers;    ///< lines with their ends
  const char* mProblem = "";
};

}  // namespace relay
