// The workbench that parses: a script is text to it, and the scripts that run are our own.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/worker/conversation.h"
#include "engine/worker/sandbox.h"

namespace pac_worker {

/// The syntax tree of a script of 500 KB takes some 100 MiB, and one that is nested as deeply as
/// the engine allows some MiB of stack.
inline constexpr std::size_t kParserHeapBytes = 256U << 20U;
inline constexpr std::size_t kParserStackBytes = 16U << 20U;
/// Twice the heap, as a block of it grows by being copied, and the program; the engine needs a rest
/// of the stack to report that its share is used up.
inline constexpr MemoryWalls kParserWalls{576UL << 20U, 24UL << 20U};

/// Every call ends the process if the library is gone or breaks the rules.
class Parser {
 public:
  /// @param channel outlives this object
  explicit Parser(pac_engine::Channel& channel);
  ~Parser();
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  /// Waits for the library's Start, makes an engine with our own scripts, and gives it the text of
  /// `script`.
  void load(std::string_view script);

  /// Sends Ready, and does commands.
  [[noreturn]] void serveForEver();

 private:
  /// A device without names, addresses and clock: our own scripts ask for none.
  class NoDevice : public PacEnvironment {
   public:
    std::vector<std::string> resolve(std::string_view, AddressFamily) override { return {}; }
    std::vector<std::string> ownAddresses(AddressFamily) override { return {}; }
    std::optional<std::int64_t> stoppedClock() override { return {}; }
    void alert(std::string_view) override {}
  };

  Reply run(const char* function, std::string_view first, std::string_view second);

  pac_engine::Channel& mChannel;
  NoDevice mDevice;
  std::chrono::milliseconds mTimeLimit{0};
  std::unique_ptr<EngineRuntime> mRuntime;  ///< null before load()
};

}  // namespace pac_worker
