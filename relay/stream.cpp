#include "relay/stream.h"

#include <sys/socket.h>

#include <cerrno>
#include <string>

namespace relay {

void Sweeper::add(Watched& watched) {
  mList.push_back(watched);
  arm();
}

void Sweeper::arm() {
  if (mIsArmed) return;
  mIsArmed = true;
  mTimer.expires_after(kPause);
  mTimer.async_wait([this](const ErrorCode& error) {
    mIsArmed = false;
    if (!error) sweep();
  });
}

void Sweeper::sweep() {
  const auto now = Clock::now();
  for (auto watched = mList.begin(); watched != mList.end();) {
    auto& current = *watched++;
    // expire() closes sockets. Their handlers run later, so the list does not change during this
    // loop.
    if (current.deadline() <= now) current.expire();
  }
  if (!mList.empty()) arm();
}

std::array<char, kBufferBytes>& sharedBuffer() {
  static auto& buffer = *new std::array<char, kBufferBytes>;
  return buffer;
}

Stream& Stream::operator=(Stream&& other) noexcept {
  if (this == &other) return *this;
  close();
  mSocket = std::move(other.mSocket);
  mTls = std::move(other.mTls);
  return *this;
}

void Stream::close() {
  ErrorCode ignored;
  if (mTls != nullptr && mSocket.is_open()) {
    mSocket.release(ignored);
  } else {
    mSocket.close(ignored);
  }
  mTls.reset();
}

ssize_t Stream::tryRead(char* bytes, std::size_t size) {
  if (!mSocket.is_open()) return kFailed;
  if (mTls != nullptr) {
    std::size_t got = 0;
    const auto result = curl_easy_recv(mTls.get(), bytes, size, &got);
    if (result == CURLE_AGAIN) return kAgain;
    return result == CURLE_OK ? static_cast<ssize_t>(got) : kFailed;
  }
  const auto got = recv(mSocket.native_handle(), bytes, size, MSG_DONTWAIT);
  if (got >= 0) return got;
  return errno == EAGAIN || errno == EINTR ? kAgain : kFailed;
}

ssize_t Stream::tryWrite(std::string_view bytes) {
  if (!mSocket.is_open()) return kFailed;
  if (mTls != nullptr) {
    std::size_t put = 0;
    const auto result = curl_easy_send(mTls.get(), bytes.data(), bytes.size(), &put);
    if (result == CURLE_AGAIN || (result == CURLE_OK && put == 0)) return kAgain;
    return result == CURLE_OK ? static_cast<ssize_t>(put) : kFailed;
  }
  const auto put =
      send(mSocket.native_handle(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (put >= 0) return put;
  return errno == EAGAIN || errno == EINTR ? kAgain : kFailed;
}

Task<bool> Stream::waitRead() {
  ErrorCode error;
  co_await mSocket.async_wait(Socket::wait_read, asio::redirect_error(asio::use_awaitable, error));
  co_return !error && mSocket.is_open();
}

Task<bool> Stream::waitWrite() {
  ErrorCode error;
  co_await mSocket.async_wait(Socket::wait_write, asio::redirect_error(asio::use_awaitable, error));
  co_return !error && mSocket.is_open();
}

Task<bool> Stream::write(std::string_view bytes) {
  std::string kept;
  while (!bytes.empty()) {
    const auto put = tryWrite(bytes);
    if (put == kFailed) co_return false;
    if (put > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(put));
      continue;
    }
    if (kept.empty()) {
      kept = bytes;
      bytes = kept;
    }
    if (!co_await waitWrite()) co_return false;
  }
  co_return true;
}

bool Stream::isQuiet() {
  char byte = 0;
  return tryRead(&byte, 1) == kAgain;
}

void Stream::abandon() {
  const linger reset{1, 0};
  if (mTls == nullptr && mSocket.is_open()) {
    setsockopt(mSocket.native_handle(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  }
}

void Stream::shutdownWrite() {
  ErrorCode ignored;
  if (mTls == nullptr && mSocket.is_open()) mSocket.shutdown(Socket::shutdown_send, ignored);
}

}  // namespace relay
