// The workbench in the role of a parser. The parser runs only our own scripts. It never runs the
// script under test, which is only a text here.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/worker/conversation.h"
#include "engine/worker/sandbox.h"

namespace pac_worker {

/// Heap and stack of the parser. The syntax tree of a script of 500 KB takes about 100 MiB of the
/// heap. The deepest nesting that the engine allows takes a few MiB of the stack.
inline constexpr std::size_t kParserHeapBytes = 256U << 20U;
inline constexpr std::size_t kParserStackBytes = 16U << 20U;
/// Memory and stack of the process. The memory is enough for the program and for twice the heap,
/// because a block of the heap grows by a copy. The stack is larger than the engine's share of it,
/// so that the engine can report that its share is used up.
inline constexpr MemoryWalls kParserWalls{576UL << 20U, 24UL << 20U};

/// Every call ends the process if the library is gone or breaks the protocol.
class Parser {
 public:
  /// @param channel must outlive this object
  explicit Parser(pac_engine::Channel& channel);
  ~Parser();
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  /// Waits for the library's Start message, makes an engine with our own scripts, and passes the
  /// text of `script` to these scripts.
  void load(std::string_view script);

  /// Sends the Ready message, and then runs commands.
  [[noreturn]] void serveForEver();

 private:
  /// An environment without names, addresses and clock. Our own scripts need none of them.
  class NoDevice : public PacEnvironment {
   public:
    std::vector<std::string> resolve(std::string_view, AddressFamily) override { return {}; }
    std::vector<std::string> ownAddresses(AddressFamily) override { return {}; }
    std::optional<std::int64_t> stoppedClock() override { return {}; }
    void alert(std::string_view) override {}
  };

  /// The message about the time limit.
  std::string slowness() const;
  Reply run(const char* function, std::string_view first, std::string_view second);

  pac_engine::Channel& mChannel;
  NoDevice mDevice;
  std::chrono::milliseconds mTimeLimit{0};
  std::unique_ptr<EngineRuntime> mRuntime;  ///< null before load()
};

}  // namespace pac_worker
