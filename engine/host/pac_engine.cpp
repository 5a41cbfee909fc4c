#include "engine/pac_engine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/log_line.h"
#include "base/utf8.h"
#include "base/visible.h"
#include "domain/canonical_url.h"
#include "engine/host/file_change.h"
#include "engine/host/name_lookup.h"
#include "engine/host/own_address.h"
#include "engine/host/worker_process.h"

namespace pac_engine {

namespace {

/// CPU time that a worker may use while no question waits for it.
constexpr std::chrono::seconds kIdleCpu{2};
/// If a worker has worked for less time than this, its CPU limit is not set again. The value is far
/// below kIdleCpu, so the worker cannot be near its limit.
constexpr std::chrono::milliseconds kShortWork{500};

Problem problemOf(std::string message) {
  return {std::move(message), 0};
}

std::vector<std::string> ofFamily(const std::vector<std::string>& addresses, AddressFamily family) {
  if (family == AddressFamily::kAny) return addresses;
  const auto found = std::find_if(addresses.begin(), addresses.end(), [](const auto& address) {
    return address.find(':') == std::string::npos;
  });
  if (found == addresses.end()) return {};
  return {*found};
}

/// The addresses, cut to the limits of the protocol.
std::vector<std::string> clipped(std::vector<std::string> addresses) {
  std::erase_if(addresses, [](const auto& text) { return text.size() > kMaxAddressBytes; });
  if (addresses.size() > kMaxAddresses) addresses.resize(kMaxAddresses);
  return addresses;
}

}  // namespace

struct Engine::Impl {
  explicit Impl(Options given) : options(std::move(given)), names(options.names) {}

  bool start(Deadline deadline, Problem& problem);
  Reply ask(std::string_view url, std::string_view host, Deadline deadline);
  Reply askWorker(std::string_view url, std::string_view host, Deadline deadline);
  Reply askWorkbench(std::string_view name, std::string_view argument, std::string& text);
  std::optional<FromWorker> converse(Deadline deadline, Problem& problem);
  Receipt receive(Deadline end, Deadline shortly, bool& isLong);
  void allowLongWork(bool& isLong);
  void finishWork(Deadline begun);
  std::optional<bool> answerWorker(const FromWorker& message, Deadline deadline);
  Reply replyOf(const FromWorker& message);
  std::vector<std::string> ownAddresses(AddressFamily family);
  void logAlert(std::string_view alert);
  void discard(const char* why);
  void followZone();

  Options options;
  UniqueFd script;
  NameLookup names;
  FileChange zone{"/etc/localtime"};  ///< a worker reads this file before it enters the sandbox
  std::unique_ptr<WorkerProcess> worker;
  std::uint32_t serial = 0;
  std::size_t alertBytesLeft = 0;
  std::string* report = nullptr;  ///< during a command: receives the pieces of the report
  std::chrono::steady_clock::duration
      worked{};  ///< the work since the worker's CPU limit was last set
};

/// Ends the worker; the next question starts another worker.
void Engine::Impl::discard(const char* why) {
  const int pid = worker->pid();
  const auto how = worker->end();
  worker.reset();
  logLine(LOG_WARNING, "pac_engine: worker %d %s (%s)", pid, why, how.c_str());
}

/// A worker in the sandbox cannot read the zone again. So if the device's zone changes, the library
/// starts a new worker.
void Engine::Impl::followZone() {
  if (!zone.changedSinceLastLook() || !worker || !options.zone.empty()) return;
  logLine(LOG_DEBUG, "pac_engine: the device's zone has changed, worker %d is replaced",
          worker->pid());
  worker.reset();
}

bool Engine::Impl::start(Deadline deadline, Problem& problem) {
  const auto program = options.workerProgram.empty() ? pac_engine::workerProgram(options.role)
                                                     : options.workerProgram;
  std::string reason;
  worker = WorkerProcess::start(program, options, script, reason);
  if (!worker) {
    problem = problemOf("no script worker: " + reason);
    return false;
  }
  const auto limit = static_cast<std::uint32_t>(options.timeLimit.count());
  worker->channel().send(encode(FromLibrary(Start{limit, options.clock})));
  const auto message = converse(deadline, problem);
  if (message && std::holds_alternative<Ready>(*message)) {
    worker->limitCpu(kIdleCpu);
    return true;
  }
  if (message) {
    if (const auto* const refused = std::get_if<Refused>(&*message)) {
      problem = {base::visible(refused->message), refused->line};
    } else {
      problem = problemOf("the script worker answered what was not asked");
    }
  }
  worker.reset();
  return false;
}

Reply Engine::Impl::ask(std::string_view url, std::string_view host, Deadline deadline) {
  try {
    return askWorker(url, host, deadline);
  } catch (...) {
    // Memory is exhausted. A worker that still works on this question cannot answer the next
    // question.
    worker.reset();
    throw;
  }
}

Reply Engine::Impl::askWorker(std::string_view url, std::string_view host, Deadline deadline) {
  Reply reply;
  followZone();
  if (!worker && !start(deadline, reply.problem)) return reply;
  const auto question = encode(FromLibrary(Evaluate{++serial, url, host}));
  worker->follow();
  if (!worker->channel().send(question)) {
    // The worker ended before it got this question, so the question did not cause the end.
    discard("has ended and is started again");
    if (!start(deadline, reply.problem)) return reply;
    worker->channel().send(question);
  }
  const auto message = converse(deadline, reply.problem);
  return message ? replyOf(*message) : reply;
}

/// A workbench that has ended has lost its records, so it is not started again.
Reply Engine::Impl::askWorkbench(std::string_view name, std::string_view argument,
                                 std::string& text) {
  Reply reply;
  const auto deadline = std::chrono::steady_clock::now() + options.timeLimit;
  if (!worker) {
    reply.problem = problemOf("the script worker has ended");
    return reply;
  }
  if (!worker->channel().send(encode(FromLibrary(Command{++serial, name, argument})))) {
    discard("has ended");
    reply.problem = problemOf("the script worker has ended");
    return reply;
  }
  report = &text;
  const auto message = converse(deadline, reply.problem);
  report = nullptr;
  return message ? replyOf(*message) : reply;
}

Reply Engine::Impl::replyOf(const FromWorker& message) {
  Reply reply;
  const auto* const answer = std::get_if<Answer>(&message);
  const auto* const none = std::get_if<NoAnswer>(&message);
  if (answer != nullptr && answer->serial == serial) {
    if (answer->result.find('\0') == std::string_view::npos) {
      reply.result = std::string(answer->result);
    } else {
      reply.problem = problemOf("the result holds a NUL character");
    }
  } else if (none != nullptr && none->serial == serial) {
    reply.problem = {base::visible(none->message), none->line};
  } else {
    reply.problem = problemOf("the script worker answered what was not asked");
    discard("answered what was not asked");
  }
  return reply;
}

/// Handles the worker's messages until the worker reports how its task ended. @return that last
/// message; its texts are valid until the next message arrives. Nothing if the worker failed and
/// has been discarded
std::optional<FromWorker> Engine::Impl::converse(Deadline deadline, Problem& problem) {
  names.begin();
  alertBytesLeft = kMaxAlertBytes;
  const auto begun = std::chrono::steady_clock::now();
  const auto shortly = begun + kShortWork;
  bool isLong = false;
  const auto fail = [&](const char* why) -> std::optional<FromWorker> {
    problem = problemOf(std::string("the script worker ") + why);
    discard(why);
    return std::nullopt;
  };
  for (;;) {
    const auto receipt = receive(deadline + kKillGrace, shortly, isLong);
    if (receipt == Receipt::kTooLate) return fail("did not answer in time");
    if (receipt == Receipt::kEnd) return fail("ended without an answer");
    auto message = decodeFromWorker(worker->channel().message());
    if (!message) return fail("sent what is no message");
    const auto served = answerWorker(*message, deadline);
    if (!served) {
      finishWork(begun);
      return message;
    }
    if (!*served) return fail("does not read its answers");
    // A worker may send requests without end, each of them in time. So the whole task also has a
    // deadline.
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline + kKillGrace) return fail("did not answer in time");
    // Between its messages, the worker may use much CPU time.
    if (now >= shortly) allowLongWork(isLong);
  }
}

/// Waits for the worker's next message. `isLong` is true if the task has reached `shortly`.
Receipt Engine::Impl::receive(Deadline end, Deadline shortly, bool& isLong) {
  auto& channel = worker->channel();
  if (!isLong) {
    const auto receipt = channel.receive(std::min(end, shortly));
    if (receipt != Receipt::kTooLate || end <= shortly) return receipt;
    allowLongWork(isLong);
  }
  return channel.receive(end);
}

/// Raises the worker's CPU time limit to the time of a whole evaluation, once in a task. A short
/// question needs no change of the limit.
void Engine::Impl::allowLongWork(bool& isLong) {
  if (isLong) return;
  isLong = true;
  worker->limitCpu(std::chrono::ceil<std::chrono::seconds>(options.timeLimit) + kIdleCpu);
}

/// Between two questions, no code watches the worker. If a script has taken control of the worker,
/// the script could then use all CPU time of the device. So the kernel enforces a CPU limit. A
/// worker that only waits does not reach this limit. After half a second of work, the function sets
/// the limit again. After less work, an ordinary worker cannot be near the limit, so the function
/// only reads the clock.
void Engine::Impl::finishWork(Deadline begun) {
  worked += std::chrono::steady_clock::now() - begun;
  if (worked < kShortWork) return;
  worked = {};
  worker->limitCpu(kIdleCpu);
}

/// Executes the request in `message`. @return whether the worker got the answer; nothing if the
/// message is no request
std::optional<bool> Engine::Impl::answerWorker(const FromWorker& message, Deadline deadline) {
  auto& channel = worker->channel();
  if (const auto* const alert = std::get_if<Alert>(&message)) {
    logAlert(alert->text);
    return true;
  }
  if (const auto* const piece = std::get_if<Report>(&message); piece && report != nullptr) {
    if (report->size() + piece->text.size() > kMaxWholeReportBytes) return false;
    report->append(piece->text);
    return true;
  }
  Addresses addresses;
  if (const auto* const name = std::get_if<Resolve>(&message)) {
    addresses.texts = clipped(names.resolve(name->name, name->family, deadline, channel.fd()));
  } else if (const auto* const question = std::get_if<OwnAddresses>(&message)) {
    addresses.texts = clipped(ownAddresses(question->family));
  } else {
    return std::nullopt;
  }
  return channel.send(encode(FromLibrary(std::move(addresses))));
}

std::vector<std::string> Engine::Impl::ownAddresses(AddressFamily family) {
  if (options.ownAddresses) return ofFamily(*options.ownAddresses, family);
  if (options.names.offline) return {"127.0.0.1"};
  return pac_engine::ownAddresses(family);
}

/// The worker's engine itself respects the limit of alerts, but a worker under the control of a
/// script may ignore it.
void Engine::Impl::logAlert(std::string_view alert) {
  if (alertBytesLeft == 0) return;
  const auto cut = base::utf8Head(alert, alertBytesLeft);
  logLine(LOG_DEBUG, "pac_engine: alert: %s", base::visible(cut).c_str());
  // An empty alert counts as one byte, so that an endless series of empty alerts reaches the limit.
  alertBytesLeft -= std::max<std::size_t>(cut.size(), 1);
}

Engine::Engine(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}
Engine::~Engine() = default;

std::unique_ptr<Engine> Engine::load(std::string_view script, Options options, Problem& refused) {
  const auto deadline = std::chrono::steady_clock::now() + options.timeLimit;
  auto impl = std::make_unique<Impl>(std::move(options));
  // A NUL ends the script; the bytes after the NUL are not sent.
  impl->script = sealedScript(script.substr(0, script.find('\0')));
  if (!impl->script) {
    refused = problemOf(std::string("no memory file: ") + std::strerror(errno));
    return nullptr;
  }
  impl->zone.changedSinceLastLook();  // the first check, before the worker reads the zone
  if (!impl->start(deadline, refused)) return nullptr;
  return std::unique_ptr<Engine>(new Engine(std::move(impl)));
}

Reply Engine::evaluate(std::string_view url, std::string_view host) {
  const auto deadline = std::chrono::steady_clock::now() + mImpl->options.timeLimit;
  Reply reply;
  const auto cleaned = domain::canonicalUrl(url);
  if (!cleaned) {
    reply.problem = problemOf("the URL is longer than 8 KiB");
  } else if (host.size() > kMaxHostBytes) {
    reply.problem = problemOf("the host is longer than 8 KiB");
  } else {
    reply = mImpl->ask(*cleaned, host, deadline);
  }
  return reply;
}

std::optional<std::string> Engine::command(std::string_view name, std::string_view argument,
                                           Problem& problem) {
  if (name.size() > kMaxCommandBytes || argument.size() > kMaxArgumentBytes) {
    problem = problemOf("the command is too long");
    return std::nullopt;
  }
  std::string report;
  auto reply = mImpl->askWorkbench(name, argument, report);
  if (reply.result) return report;
  problem = std::move(reply.problem);
  return std::nullopt;
}

pid_t Engine::workerPid() const {
  return mImpl->worker ? mImpl->worker->pid() : 0;
}

std::string describe(const Problem& problem) {
  if (problem.line == 0) return problem.message;
  return "line " + std::to_string(problem.line) + ": " + problem.message;
}

}  // namespace pac_engine
