// The worker's side of the conversation: it loads a script, and then answers questions until the
// socket is closed.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "engine/wire/channel.h"
#include "engine/worker/broker_environment.h"
#include "engine/worker/script_engine.h"

namespace pac_worker {

/// The functions that the workbench adds to a conversation.
class Extension : public Preparation {
 public:
  /// The environment for the script, which replaces `device`. `device` must outlive this object.
  virtual PacEnvironment& around(PacEnvironment& device) = 0;
  /// Executes a command of the library. @return the report, or the reason why there is none
  virtual Reply report(std::string_view command, std::string_view argument) = 0;
};

/// The library's first message.
pac_engine::Start receiveStart(pac_engine::Channel& channel);

/// Answers question `serial`.
void sendReply(pac_engine::Channel& channel, std::uint32_t serial, const Reply& reply);

/// Sends a report in pieces, and then a message that ends the report.
void sendReport(pac_engine::Channel& channel, std::uint32_t serial, const Reply& reply);

/// Reports the reason why no script is loaded, and ends the worker.
[[noreturn]] void refuse(pac_engine::Channel& channel, std::string_view message,
                         std::uint32_t line = 0);

/// One conversation. Every call ends the process if the library is gone or breaks the rules.
class Conversation {
 public:
  /// @param channel must outlive this object
  /// @param extension null in the daemon's worker, which then accepts no command; must outlive this
  /// object
  explicit Conversation(pac_engine::Channel& channel, Extension* extension = nullptr)
      : mChannel(channel), mEnvironment(channel), mExtension(extension) {}

  /// Waits for the library's Start, and loads `script` within the limits for scripts. A script that
  /// is refused ends the process.
  void load(std::string_view script);

  /// Sends Ready, and answers.
  [[noreturn]] void answerForEver();

 private:
  void answer();

  pac_engine::Channel& mChannel;
  BrokerEnvironment mEnvironment;
  Extension* const mExtension;
  std::chrono::milliseconds mTimeLimit{0};  ///< limit for a load or an evaluation
  std::unique_ptr<ScriptEngine> mEngine;    ///< null before load()
};

}  // namespace pac_worker
