#include "settings/script_connection.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace settings {

namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";
/// Number of bytes of a script that are sent at once.
constexpr std::size_t kChunkBytes = 16U << 10U;

bool isLater(ssize_t result) {
  return result < 0 && (errno == EAGAIN || errno == EINTR);
}

}  // namespace

std::optional<ScriptRequest> readRequest(std::string_view head) {
  std::string_view line = head.substr(0, head.find("\r\n"));
  ScriptRequest request;
  if (line.starts_with("HEAD /")) {
    request.isHead = true;
  } else if (!line.starts_with("GET /")) {
    return std::nullopt;
  }
  line.remove_prefix(line.find('/') + 1);
  const auto blank = line.find(' ');
  if (blank == std::string_view::npos || !line.substr(blank).starts_with(" HTTP/1.")) {
    return std::nullopt;
  }
  request.name = line.substr(0, blank);
  return request;
}

ScriptConnection::ScriptConnection(sd_event* event, base::UniqueFd socket, Owner& owner)
    : mSocket(std::move(socket)), mOwner(owner) {
  sd_event_source* source = nullptr;
  require(sd_event_add_io(event, &source, mSocket.get(), EPOLLIN, onReady, this),
          "sd_event_add_io");
  mSource.reset(source);
  require(sd_event_source_set_priority(source, kScriptPriority), "sd_event_source_set_priority");
  const std::chrono::microseconds limit = kConnectionLimit;
  require(sd_event_add_time_relative(event, &source, CLOCK_MONOTONIC,
                                     static_cast<std::uint64_t>(limit.count()), 0, onLimit, this),
          "sd_event_add_time_relative");
  mLimit.reset(source);
  require(sd_event_source_set_priority(source, kScriptPriority), "sd_event_source_set_priority");
}

int ScriptConnection::onReady(sd_event_source* source, int, std::uint32_t, void* self) {
  auto& connection = *static_cast<ScriptConnection*>(self);
  return guarded(sd_event_source_get_event(source), [&connection] {
    if (!connection.proceed()) connection.mOwner.connectionEnded(connection);
  });
}

int ScriptConnection::onLimit(sd_event_source* source, std::uint64_t, void* self) {
  auto& connection = *static_cast<ScriptConnection*>(self);
  return guarded(sd_event_source_get_event(source),
                 [&connection] { connection.mOwner.connectionEnded(connection); });
}

/// @return false when the connection has ended
bool ScriptConnection::proceed() {
  if (!mIsAnswering && !read()) return false;
  return !mIsAnswering || write();
}

bool ScriptConnection::read() {
  std::array<char, kMaxRequestBytes> bytes;
  const ssize_t length = recv(mSocket.get(), bytes.data(), kMaxRequestBytes - mText.size(), 0);
  if (length <= 0) return isLater(length);
  mText.append(bytes.data(), static_cast<std::size_t>(length));
  const bool isWhole = mText.find(kHeadEnd) != std::string::npos;
  if (isWhole) {
    answer();
  } else if (mText.size() == kMaxRequestBytes) {
    answerWith("431 Request Header Fields Too Large", 0);
  }
  return true;
}

void ScriptConnection::answer() {
  const auto request = readRequest(mText);
  struct stat state {};
  if (request) mFile = mOwner.openScript(request->name);
  if (!mFile || fstat(mFile.get(), &state) != 0) {
    answerWith(request ? "404 Not Found" : "400 Bad Request", 0);
    return;
  }
  answerWith("200 OK", static_cast<std::uint64_t>(state.st_size));
  if (!request->isHead) mBytes = state.st_size;
}

void ScriptConnection::answerWith(const char* status, std::uint64_t bytes) {
  mText = std::string("HTTP/1.1 ") + status +
          "\r\nContent-Type: application/x-ns-proxy-autoconfig\r\nContent-Length: " +
          std::to_string(bytes) + "\r\nConnection: close\r\n\r\n";
  mIsAnswering = true;
  require(sd_event_source_set_io_events(mSource.get(), EPOLLOUT), "sd_event_source_set_io_events");
}

/// The next unsent bytes of the file. Returns no bytes at the end of the file, or if the file has
/// become shorter.
std::string_view ScriptConnection::nextChunk(std::span<char> chunk) const {
  const auto most = std::min(static_cast<std::size_t>(mBytes - mOffset), chunk.size());
  if (most == 0) return {};
  const ssize_t length = pread(mFile.get(), chunk.data(), most, mOffset);
  return {chunk.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

// The socket is closed after the last byte. The kernel still sends the bytes that it has queued.
bool ScriptConnection::write() {
  std::array<char, kChunkBytes> chunk;
  while (true) {
    const std::string_view rest = mText.empty() ? nextChunk(chunk) : mText;
    if (rest.empty()) return false;
    const ssize_t sent = send(mSocket.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (sent < 0) return isLater(sent);
    if (mText.empty()) {
      mOffset += sent;
    } else {
      mText.erase(0, static_cast<std::size_t>(sent));
    }
  }
}

}  // namespace settings
