// proxymanager-pac-worker: runs one PAC script for the library that started it.
//
// It has one thread and two descriptors: its end of a socket pair, and the script in a sealed
// memory file. The file is mapped and its descriptor closed; then the walls are raised; only then
// is the first byte of the script read. From there on the program answers questions until its
// socket ends.
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/pac_engine/channel.h"
#include "platform/pac_engine/worker/broker_environment.h"
#include "platform/pac_engine/worker/sandbox.h"
#include "platform/pac_engine/worker/script_engine.h"
#include "platform/pac_engine/worker_process.h"

namespace {

// The library takes a worker for broken that says more than the protocol lets it.
static_assert(pac_worker::ScriptLimits{}.resultBytes == pac_engine::kMaxResultBytes);
static_assert(pac_worker::ScriptLimits{}.alertBytes == pac_engine::kMaxAlertBytes);

using pac_worker::BrokerEnvironment;
using pac_worker::ScriptEngine;

/// The script's bytes, not yet read, and the descriptor closed.
std::optional<std::string_view> mappedScript() {
  const pac_engine::UniqueFd file(pac_engine::kWorkerScript);
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return std::nullopt;
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size == 0) return std::string_view();
  void* const bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
  if (bytes == MAP_FAILED) return std::nullopt;
  return std::string_view(static_cast<const char*>(bytes), size);
}

void unmap(std::string_view script) {
  if (!script.empty()) munmap(const_cast<char*>(script.data()), script.size());
}

[[noreturn]] void refuse(pac_engine::Channel& channel, std::string_view message,
                         std::uint32_t line = 0) {
  const auto cut = pac_engine::cutText(message, pac_engine::kMaxProblemBytes);
  pac_worker::sendOrEnd(channel, pac_engine::Refused{line, cut});
  _exit(EXIT_SUCCESS);
}

/// Ends the process should a load or an evaluation outlast the library that waits for it: some
/// scripts never come back to where the engine looks at the clock, and the library's own wall, which
/// stands before this one, falls with the library.
class LastWall {
 public:
  explicit LastWall(std::chrono::milliseconds limit) { arm(limit + kAfterTheLibrary); }
  ~LastWall() { arm(std::chrono::milliseconds(0)); }
  LastWall(const LastWall&) = delete;
  LastWall& operator=(const LastWall&) = delete;

 private:
  static constexpr std::chrono::milliseconds kAfterTheLibrary{1000};

  // SIGALRM's default action is the end.
  static void arm(std::chrono::milliseconds after) {
    const auto count = after.count();
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(count / 1000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(count % 1000 * 1000);
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
};

pac_engine::Start receiveStart(pac_engine::Channel& channel) {
  const auto message = pac_worker::receiveOrEnd(channel);
  const auto* const start = std::get_if<pac_engine::Start>(&message);
  if (start == nullptr) _exit(pac_worker::kExitBroken);
  return *start;
}

void answer(pac_engine::Channel& channel, ScriptEngine& engine, std::chrono::milliseconds limit) {
  const auto message = pac_worker::receiveOrEnd(channel);
  const auto* const question = std::get_if<pac_engine::Evaluate>(&message);
  if (question == nullptr) _exit(pac_worker::kExitBroken);
  // The texts lie in the channel's buffer, which the first lookup of the script overwrites.
  const auto serial = question->serial;
  const std::string url(question->url);
  const std::string host(question->host);
  const auto evaluation = [&] {
    const LastWall wall(limit);
    return engine.evaluate(url, host);
  }();
  if (evaluation.result) {
    pac_worker::sendOrEnd(channel, pac_engine::Answer{serial, *evaluation.result});
    return;
  }
  const auto& error = evaluation.error;
  const auto cut = pac_engine::cutText(error.message, pac_engine::kMaxProblemBytes);
  pac_worker::sendOrEnd(channel, pac_engine::NoAnswer{serial, error.line, cut});
}

}  // namespace

int main() {
  pac_engine::Channel channel{pac_engine::UniqueFd(pac_engine::kWorkerSocket)};
  pac_worker::loadZone();
  const auto script = mappedScript();
  if (!script) refuse(channel, "the script cannot be mapped");
  if (const auto problem = pac_worker::enterSandbox(channel.fd())) {
    refuse(channel, "the sandbox cannot be had: " + *problem);
  }
  const auto start = receiveStart(channel);
  BrokerEnvironment environment(channel);
  if (start.clock) environment.stopClock(*start.clock);
  pac_worker::ScriptLimits limits;
  limits.time = std::chrono::milliseconds(start.timeLimitMs);
  ScriptEngine engine(environment, limits);
  const auto error = [&] {
    const LastWall wall(limits.time);
    return engine.load(*script);
  }();
  if (error) refuse(channel, error->message, error->line);
  unmap(*script);
  pac_worker::sendOrEnd(channel, pac_engine::Ready{});
  for (;;) {
    environment.begin();
    answer(channel, engine, limits.time);
  }
}
