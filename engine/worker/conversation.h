// The worker's side of the conversation: a script is loaded, then questions are answered until the
// socket ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "engine/wire/channel.h"
#include "engine/worker/broker_environment.h"
#include "engine/worker/script_engine.h"

namespace pac_worker {

/// Says why there is no answer to be had from this worker, and ends it.
[[noreturn]] void refuse(pac_engine::Channel& channel, std::string_view message,
                         std::uint32_t line = 0);

/// To be held once; every call ends the process where the library is gone or breaks the rules.
class Conversation {
 public:
  /// @param channel outlives this object
  explicit Conversation(pac_engine::Channel& channel) : mChannel(channel), mEnvironment(channel) {}

  /// Waits for the library's Start and loads `script` as it says. A script that is refused ends the
  /// process.
  void load(std::string_view script);

  /// Says Ready, and answers.
  [[noreturn]] void answerForEver();

 private:
  void answer();

  pac_engine::Channel& mChannel;
  BrokerEnvironment mEnvironment;
  std::chrono::milliseconds mTimeLimit{0};  ///< of a load or an evaluation
  std::unique_ptr<ScriptEngine> mEngine;    ///< null before load()
};

}  // namespace pac_worker
