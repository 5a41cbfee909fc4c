// The device as a script in the worker sees it. The worker itself has the clock and the zone. For
// everything else, the worker asks the library through the socket.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/wire/channel.h"
#include "engine/worker/pac_environment.h"

namespace pac_worker {

/// Ends the process if the library is gone or breaks the rules of the conversation.
class BrokerEnvironment : public PacEnvironment {
 public:
  /// @param channel outlives this object
  explicit BrokerEnvironment(pac_engine::Channel& channel) : mChannel(channel) {}

  /// Stops the clock at `seconds` since 1970.
  void stopClock(std::int64_t seconds) { mStopped = seconds; }

  /// Begins an evaluation: earlier answers are forgotten.
  void begin();

  std::vector<std::string> resolve(std::string_view name, AddressFamily family) override;
  std::vector<std::string> ownAddresses(AddressFamily family) override;
  std::optional<std::int64_t> stoppedClock() override { return mStopped; }
  void alert(std::string_view text) override;

 private:
  using Texts = std::vector<std::string>;

  Texts ask(const pac_engine::FromWorker& question);

  pac_engine::Channel& mChannel;
  std::optional<std::int64_t> mStopped;
  /// Answers of this evaluation. Many rules of a script ask for the same host, and a question
  /// through the socket costs more than the rest of a rule.
  std::map<std::pair<AddressFamily, std::string>, Texts, std::less<>> mResolved;
  std::map<AddressFamily, Texts> mOwn;
};

/// Sends `message`, or ends the process if the other end is closed.
void sendOrEnd(pac_engine::Channel& channel, const pac_engine::FromWorker& message);

/// Waits for the next message. Ends the process with status 0 if the socket is closed, and with
/// kExitBroken if the message is not valid.
pac_engine::FromLibrary receiveOrEnd(pac_engine::Channel& channel);

}  // namespace pac_worker
