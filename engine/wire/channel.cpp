#include "engine/wire/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace pac_engine {

namespace {

// One byte more than the longest message, so that a longer message is detected.
constexpr std::size_t kBufferBytes = kMaxMessageBytes + 1;

/// The timeout for poll() until `deadline`, rounded up. If it were rounded down, poll() would
/// return too early, and the caller would call it several times.
int millisecondsLeft(Deadline deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

/// Waits until `socket` can be read or is closed. @return false if `deadline` was reached before
/// that
bool waitReadable(int socket, Deadline deadline) {
  pollfd entry{socket, POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&entry, 1, millisecondsLeft(deadline));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

}  // namespace

// The buffer is not initialised. So pages that no message fills are never touched and use no
// memory.
Channel::Channel(UniqueFd socket)
    : mSocket(std::move(socket)), mBuffer(std::make_unique_for_overwrite<char[]>(kBufferBytes)) {}

bool Channel::send(std::string_view message) {
  return sendWith(MSG_DONTWAIT, message);
}

bool Channel::sendPatiently(std::string_view message) {
  return sendWith(0, message);
}

bool Channel::sendWith(int flags, std::string_view message) {
  ssize_t sent = 0;
  do {
    sent = ::send(mSocket.get(), message.data(), message.size(), flags | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0 && static_cast<std::size_t>(sent) == message.size();
}

void Channel::hangUp() {
  shutdown(mSocket.get(), SHUT_RDWR);
}

Receipt Channel::receive(std::optional<Deadline> deadline) {
  mLength = 0;
  if (deadline && !waitReadable(mSocket.get(), *deadline)) return Receipt::kTooLate;
  ssize_t length = 0;
  do {
    length = recv(mSocket.get(), mBuffer.get(), kBufferBytes, 0);
    // If the peer closes its end before it has read everything, the connection is reset. The kernel
    // reports the reset once, before it returns the messages that the peer has sent.
  } while (length < 0 && (errno == EINTR || errno == ECONNRESET));
  if (length <= 0) return Receipt::kEnd;
  mLength = static_cast<std::size_t>(length);
  return Receipt::kMessage;
}

}  // namespace pac_engine
