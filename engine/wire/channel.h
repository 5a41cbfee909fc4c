// One end of the socket pair between library and worker. It sends and receives whole messages.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "base/unique_fd.h"
#include "engine/wire/protocol.h"

namespace pac_engine {

using base::UniqueFd;

using Deadline = std::chrono::steady_clock::time_point;

enum class Receipt : std::uint8_t {
  kMessage,  ///< there is a message
  kEnd,      ///< the other end is closed, or the socket failed
  kTooLate   ///< nothing came by the deadline
};

class Channel {
 public:
  explicit Channel(UniqueFd socket);

  /// Sends one message without waiting.
  /// @return false if the other end is closed or does not read its messages
  bool send(std::string_view message);

  /// Sends one message. Waits as long as the other end is open but reads too slowly.
  /// @return false if the other end is closed
  bool sendPatiently(std::string_view message);

  /// Waits for one message until `deadline`. Without a deadline, waits as long as the other end is
  /// open.
  Receipt receive(std::optional<Deadline> deadline = std::nullopt);

  /// The last received message, valid until the next receive(). A message that is longer than
  /// allowed is cut to a length that every decoder refuses.
  std::string_view message() const { return {mBuffer.get(), mLength}; }

  /// Ends the conversation: the other end finds the socket closed.
  void hangUp();

  int fd() const { return mSocket.get(); }

 private:
  bool sendWith(int flags, std::string_view message);

  UniqueFd mSocket;
  std::unique_ptr<char[]> mBuffer;
  std::size_t mLength = 0;
};

}  // namespace pac_engine
