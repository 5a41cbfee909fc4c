#include "relay/http_body.h"

#include <algorithm>
#include <charconv>

#include "base/ascii.h"

namespace relay {

BodyReader::BodyReader(const Body& body, bool keepsChunks)
    : mState(State::kPlain),
      mKeepsChunks(keepsChunks),
      mIsUntilClose(body.kind == BodyKind::kUntilClose),
      mRest(mIsUntilClose ? kMaxBodyBytes : body.length) {
  if (body.kind == BodyKind::kChunked) mState = State::kSize;
  if (body.kind == BodyKind::kNone) mState = State::kEnd;
  if (body.kind == BodyKind::kLength && body.length == 0) mState = State::kEnd;
}

std::size_t BodyReader::fail(const char* problem) {
  mProblem = problem;
  return 0;
}

void BodyReader::streamEnded() {
  if (mIsUntilClose) {
    mState = State::kEnd;
  } else if (mState != State::kEnd) {
    fail("the body ended early");
  }
}

std::size_t BodyReader::takePlain(std::string_view bytes, std::string& out) {
  const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), mRest));
  out.append(bytes.substr(0, taken));
  mRest -= taken;
  return taken;
}

std::size_t BodyReader::takeLine(std::string_view bytes, std::size_t limit) {
  const auto end = bytes.find('\n');
  const auto taken = end == std::string_view::npos ? bytes.size() : end + 1;
  if (mLine.size() + taken > limit + 2) return fail("a line of the chunked body is too long");
  mLine.append(bytes.substr(0, taken));
  if (end == std::string_view::npos) return taken;
  if (!mLine.ends_with("\r\n")) return fail("a line of the chunked body has no CR LF");
  mLine.resize(mLine.size() - 2);
  const bool isPrintable = std::none_of(mLine.begin(), mLine.end(),
                                        [](char c) { return base::isControl(c) && c != '\t'; });
  if (!isPrintable) return fail("a control character in the chunked body");
  mHasLine = true;
  return taken;
}

void BodyReader::endSize(std::string& out) {
  const char* const end = mLine.data() + mLine.size();
  const auto [rest, error] = std::from_chars(mLine.data(), end, mRest, 16);
  // Only blanks are allowed between the size and the semicolon of an extension.
  const auto behind = base::trimmed(std::string_view(rest, static_cast<std::size_t>(end - rest)));
  const bool isSize = !mLine.empty() && base::hexValue(mLine.front()) >= 0 && error == std::errc();
  if (!isSize || mRest > kMaxBodyBytes || (!behind.empty() && behind.front() != ';')) {
    fail("a chunk's size is no number");
    return;
  }
  mLine.clear();
  mState = mRest == 0 ? State::kTrailers : State::kData;
  if (!mKeepsChunks || mRest == 0) return;
  char digits[16];
  const auto written = std::to_chars(digits, digits + sizeof(digits), mRest, 16);
  out.append(digits, written.ptr).append("\r\n");
}

void BodyReader::endTrailerLine(std::string& out) {
  if (!mLine.empty()) {
    if (mTrailers.size() + mLine.size() + 2 > kMaxTrailerBytes) {
      fail("the trailers are too long");
      return;
    }
    mTrailers.append(mLine).append("\r\n");
    mLine.clear();
    return;
  }
  Fields trailers;
  if (const auto problem = readTrailers(mTrailers, trailers); problem.status != 0) {
    fail(problem.text);
    return;
  }
  if (mKeepsChunks) out.append("0\r\n").append(mTrailers).append("\r\n");
  mState = State::kEnd;
}

std::size_t BodyReader::takeDataEnd(std::string_view bytes, std::string& out) {
  const std::string_view kEnd = "\r\n";
  if (bytes.front() != kEnd[mLine.size()]) return fail("a chunk is longer than its size");
  mLine += bytes.front();
  if (mLine.size() == kEnd.size()) {
    mLine.clear();
    mState = State::kSize;
    if (mKeepsChunks) out.append(kEnd);
  }
  return 1;
}

std::size_t BodyReader::take(std::string_view bytes, std::string& out) {
  std::size_t taken = 0;
  while (taken < bytes.size() && mState != State::kEnd && mProblem[0] == '\0') {
    const auto rest = bytes.substr(taken);
    switch (mState) {
      case State::kPlain:
        taken += takePlain(rest, out);
        if (mRest == 0) mState = State::kEnd;
        break;
      case State::kSize:
      case State::kTrailers:
        taken += takeLine(rest, mState == State::kSize ? kMaxChunkLine : kMaxTrailerBytes);
        if (!mHasLine) break;
        mHasLine = false;
        mState == State::kSize ? endSize(out) : endTrailerLine(out);
        break;
      case State::kData:
        taken += takePlain(rest, out);
        if (mRest == 0) mState = State::kDataEnd;
        break;
      case State::kDataEnd:
        taken += takeDataEnd(rest, out);
        break;
      case State::kEnd:
        break;
    }
  }
  return taken;
}

}  // namespace relay
