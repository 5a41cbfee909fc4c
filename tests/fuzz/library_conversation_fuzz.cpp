// Tests the library's side of the conversation, with a hostile worker at the other end. The test
// uses the library's real engine code. Instead of a process, there is a socket that already
// contains all messages of the worker, both well-formed messages and garbage. A model predicts the
// library's results.
//
// The input has a part for each worker that the library starts. The part begins with a byte, which
// decides whether the worker reads its socket and how many messages it sends. Then the messages
// follow, each after a byte for its kind.
#include <fcntl.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "base/utf8.h"
#include "base/visible.h"
#include "engine/host/worker_process.h"
#include "engine/pac_engine.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/log.h"
#include "tests/fuzz/support/messages.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace pac_engine;

namespace {

// Maximum number of messages of one worker. The library's answers to this number of messages fit
// into the socket.
constexpr std::size_t kMostMessages = 16;
constexpr int kQuestions = 3;
constexpr pid_t kPid = 4711;

struct Worker {
  UniqueFd socket;                   ///< the worker's end; empty if the worker has closed it
  std::deque<std::string> messages;  ///< sent messages that the model has not read yet
};

/// The message that ends a wait of the library: a message that is neither a question nor an alert.
/// Nothing if the worker failed.
using End = std::optional<FromWorker>;

/// One run: the workers that were started, and the model of the library that handles their
/// messages.
struct Run {
  explicit Run(fuzz::Input& given) : input(given) {}

  fuzz::Input& input;
  std::deque<std::optional<Worker>> started;  ///< for the model; empty element: no worker started
  std::optional<Worker> current;              ///< the worker that the model uses now
  std::uint32_t serial = 0;
  std::string bytes;           ///< the message that ended a wait
  std::string alerts;          ///< logged since the last check, one line each
  std::string expectedAlerts;  ///< the lines that the model expects

  void start();
  End wait();
  bool ready();
  void readWhatWasSaid();
};

Run* run = nullptr;

std::string someMessage(fuzz::Input& input) {
  switch (input.below(5)) {
    case 0:
      return std::string(fuzz::someText(input, kMaxResultBytes));
    case 1:
      return encode(FromWorker(Ready{}));
    case 2:
      return encode(FromWorker(Answer{input.byte(), "PROXY a:1"}));
    case 3:
      if (input.byte() == 255) return std::string(kMaxMessageBytes + 1, '\x09');
      [[fallthrough]];
    default:
      return encode(fuzz::messageOfWorker(input));
  }
}

/// The model of the library's wait for its worker.
End Run::wait() {
  std::size_t alertBytesLeft = kMaxAlertBytes;
  while (!current->messages.empty()) {
    bytes = std::move(current->messages.front());
    current->messages.pop_front();
    const auto message = decodeFromWorker(bytes);
    if (!message) return std::nullopt;
    if (const auto* const alert = std::get_if<Alert>(&*message)) {
      if (alertBytesLeft == 0) continue;
      const auto cut = base::utf8Head(alert->text, alertBytesLeft);
      expectedAlerts += base::visible(cut) + '\n';
      alertBytesLeft -= std::max<std::size_t>(cut.size(), 1);
      continue;
    }
    const bool question =
        std::holds_alternative<Resolve>(*message) || std::holds_alternative<OwnAddresses>(*message);
    if (!question) return message;
    if (!current->socket) return std::nullopt;
  }
  return std::nullopt;
}

/// The model of a worker's start. @return whether the worker is ready
bool Run::ready() {
  require(!started.empty(), "a worker is started where one is needed");
  current = std::move(started.front());
  started.pop_front();
  if (!current) return false;
  const auto end = wait();
  if (!end || !std::holds_alternative<Ready>(*end)) current.reset();
  return current.has_value();
}

/// Reads and checks all messages of the library to the worker.
void Run::readWhatWasSaid() {
  static char buffer[kMaxMessageBytes + 1];
  while (current && current->socket) {
    const auto length = recv(current->socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (length <= 0) return;
    const auto said = decodeFromLibrary({buffer, static_cast<std::size_t>(length)});
    require(said.has_value(), "what the library says is a message");
    const auto* const question = std::get_if<Evaluate>(&*said);
    require(question == nullptr || question->serial <= serial, "serials are counted");
  }
}

void checkLine(int priority, std::string_view line) {
  require(base::visible(line) == line, "no line has a control character");
  constexpr std::string_view kAlert = "pac_engine: alert: ";
  if (priority == LOG_DEBUG && line.starts_with(kAlert))
    (run->alerts += line.substr(kAlert.size())) += '\n';
}

/// A load and each question have separate limits for the alerts that are logged.
void checkAlerts() {
  require(run->alerts == run->expectedAlerts, "alerts are logged up to their share");
  run->alerts.clear();
  run->expectedAlerts.clear();
}

void checkProblem(const Problem& problem) {
  require(base::visible(problem.message) == problem.message, "a problem has no control character");
  require(problem.message.size() <= 4 * kMaxProblemBytes, "a problem is short");
}

/// @return the answer that the model expects for a question
std::optional<std::string> expectedAnswer() {
  if (!run->current && !run->ready()) return std::nullopt;
  ++run->serial;
  // If the worker has closed its socket, the library notices this and sends the question to another
  // worker.
  if (!run->current->socket && !run->ready()) return std::nullopt;
  const auto end = run->wait();
  const auto* const answer = end ? std::get_if<Answer>(&*end) : nullptr;
  const auto* const none = end ? std::get_if<NoAnswer>(&*end) : nullptr;
  const bool mine = (answer != nullptr && answer->serial == run->serial) ||
                    (none != nullptr && none->serial == run->serial);
  std::optional<std::string> text;
  if (mine && answer != nullptr && answer->result.find('\0') == std::string_view::npos)
    text = answer->result;
  run->readWhatWasSaid();
  if (!mine) run->current.reset();
  return text;
}

void ask(Engine& engine) {
  const auto reply = engine.evaluate("http://user@example.com/#x", "example.com");
  require(reply.result == expectedAnswer(), "the answer is the worker's to this very question");
  checkAlerts();
  require(run->started.empty(), "no worker is started that is not needed");
  require((engine.workerPid() == kPid) == run->current.has_value(),
          "a worker that breaks the rules is ended, no other");
  checkProblem(reply.problem);
  require(!reply.result || reply.problem.message.empty(), "an answer is no problem");
}

Options options() {
  Options made;
  made.names.staticNames = StaticNames{{"a", {"10.0.0.1", "fe80::1", std::string(99, 'x')}}};
  made.ownAddresses = std::vector<std::string>(100, "10.0.0.2");
  made.ownAddresses->front() = std::string(99, 'x');
  return made;
}

}  // namespace

// Replaces the functions of worker_process.h. There is no real process.

namespace pac_engine {

UniqueFd sealedScript(std::string_view) {
  return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

std::string workerProgram(WorkerRole) {
  return "none";
}

WorkerProcess::WorkerProcess(pid_t pid, std::unique_ptr<sandbox::ChildProcess> child,
                             UniqueFd socket)
    : mPid(pid), mChild(std::move(child)), mChannel(std::move(socket)) {}

WorkerProcess::~WorkerProcess() = default;

void WorkerProcess::follow() {
  mCpu = 0;
}

void WorkerProcess::limitCpu(std::chrono::seconds /*more*/) {}

std::string WorkerProcess::end() {
  mChannel.hangUp();
  return "ended";
}

std::unique_ptr<WorkerProcess> WorkerProcess::start(const std::string&, const Options&,
                                                    const UniqueFd&, std::string& problem) {
  auto& input = run->input;
  int ends[2];
  if (input.empty() || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    run->started.emplace_back();
    problem = "none left";
    return nullptr;
  }
  UniqueFd ours(ends[0]);
  Worker worker{UniqueFd(ends[1]), {}};
  const auto how = input.byte();
  for (auto left = how / 2U % (kMostMessages + 1); left > 0; --left) {
    const auto message = someMessage(input);
    const auto flags = MSG_DONTWAIT | MSG_NOSIGNAL;
    if (send(worker.socket.get(), message.data(), message.size(), flags) < 0) break;
    worker.messages.push_back(message);
  }
  shutdown(worker.socket.get(), SHUT_WR);
  if (how % 2 == 1) worker.socket.reset();
  run->started.emplace_back(std::move(worker));
  return std::unique_ptr<WorkerProcess>(new WorkerProcess(kPid, nullptr, std::move(ours)));
}

}  // namespace pac_engine

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::onLogLine = checkLine;
  fuzz::Input input(data, size);
  Run thisRun(input);
  run = &thisRun;
  Problem refused;
  const auto engine = Engine::load("script", options(), refused);
  checkProblem(refused);
  require(run->ready() == (engine != nullptr), "a script is loaded where the worker is ready");
  checkAlerts();
  require(!engine || refused.message.empty(), "a script that is loaded is not refused");
  for (int i = 0; engine && i < kQuestions; ++i) ask(*engine);
  return 0;
}
