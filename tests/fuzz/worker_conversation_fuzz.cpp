// Tests the worker's side of the conversation, with a hostile library at the other end. The test
// uses the worker's real loop. The input controls a replacement of the script engine. Instead of
// ending the process, the test's endWorker() throws an exception. The socket already contains all
// messages of the library. A model predicts each byte that the worker sends, and how the worker
// ends.
//
// The input begins with a byte for the number of the library's messages. Then the messages follow,
// each after a byte for its kind. The remaining bytes control the steps of the engine.
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/utf8.h"
#include "engine/worker/conversation.h"
#include "engine/worker/worker_end.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/messages.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace pac_engine;
using pac_worker::endWorker;

namespace {

constexpr std::size_t kMostMessages = 12;
constexpr std::size_t kMostSteps = 8;  ///< of the engine, in one load or evaluation

struct Ended {
  int code;
};

/// Replaces the library: sends any message, and checks which messages it receives.
struct Library {
  explicit Library(fuzz::Input& given) : input(given) {}

  fuzz::Input& input;
  UniqueFd socket{};
  std::deque<std::string> said{};      ///< messages that the model of the worker has not read yet
  std::deque<std::string> expected{};  ///< messages that the worker must send, in this order
  std::string taken{};                 ///< bytes of the last message; its texts refer to them
  bool refused = false;                ///< the script was refused, so the worker ends by itself
  std::map<std::pair<AddressFamily, std::string>, std::vector<std::string>> resolved{};
  std::map<AddressFamily, std::vector<std::string>> own{};

  void say();
  void hear();
  template <typename Wanted>
  std::optional<Wanted> take();
  int expectedCode() const;
};

Library* library = nullptr;

std::string someMessage(fuzz::Input& input) {
  switch (input.below(6)) {
    case 0:
      return std::string(fuzz::someText(input, kMaxResultBytes));
    case 1:
      return encode(FromLibrary(Start{input.byte(), std::nullopt}));
    case 2:
    case 3:
      return encode(FromLibrary(Evaluate{input.byte(), fuzz::someText(input, kMaxUrlBytes), "h"}));
    default:
      return encode(fuzz::messageOfLibrary(input));
  }
}

void Library::say() {
  for (auto left = input.below(kMostMessages + 1); left > 0; --left) {
    const auto message = someMessage(input);
    const auto flags = MSG_DONTWAIT | MSG_NOSIGNAL;
    if (send(socket.get(), message.data(), message.size(), flags) < 0) break;
    said.push_back(message);
  }
  shutdown(socket.get(), SHUT_WR);
}

/// Reads the messages of the worker, and checks that the model predicts these messages.
void Library::hear() {
  static char buffer[kMaxMessageBytes + 1];
  for (;;) {
    const auto length = recv(socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (length <= 0) break;
    const std::string_view heard(buffer, static_cast<std::size_t>(length));
    require(decodeFromWorker(heard).has_value(), "what a worker says is a message");
    require(!expected.empty() && heard == expected.front(), "it is the one that had to come");
    expected.pop_front();
  }
}

/// The next message. The model accepts the message if the worker may accept it now.
template <typename Wanted>
std::optional<Wanted> Library::take() {
  if (said.empty()) return std::nullopt;
  const auto message = decodeFromLibrary(said.front());
  if (!message || !std::holds_alternative<Wanted>(*message)) return std::nullopt;
  taken = std::move(said.front());
  said.pop_front();
  return std::get<Wanted>(*decodeFromLibrary(taken));
}

/// A worker ends without an error only at the end of the socket or after a refusal. A packet
/// without a byte counts as the end of the socket.
int Library::expectedCode() const {
  return refused || said.empty() || said.front().empty() ? EXIT_SUCCESS : pac_worker::kExitBroken;
}

/// The addresses that the engine gets for a question: the library's next message. If the next
/// message has no addresses, the worker ends inside `ask`.
template <typename Ask>
std::vector<std::string> answered(const FromWorker& question, const Ask& ask) {
  library->expected.push_back(encode(question));
  const auto addresses = library->take<Addresses>();
  const auto given = ask();
  require(addresses && given == addresses->texts, "addresses are those that the library gave");
  return given;
}

void resolve(pac_worker::PacEnvironment& environment, AddressFamily family, std::string name) {
  const auto ask = [&] { return environment.resolve(name, family); };
  if (name.empty() || name.size() > kMaxNameBytes) {
    require(ask().empty(), "what is no name has no address, and is not asked for");
    return;
  }
  const auto known = library->resolved.find({family, name});
  if (known != library->resolved.end()) {
    require(ask() == known->second, "a name is asked for once");
    return;
  }
  auto addresses = answered(Resolve{family, name}, ask);
  library->resolved[{family, std::move(name)}] = std::move(addresses);
}

void ownAddresses(pac_worker::PacEnvironment& environment, AddressFamily family) {
  const auto ask = [&] { return environment.ownAddresses(family); };
  const auto known = library->own.find(family);
  if (known != library->own.end()) {
    require(ask() == known->second, "the own addresses are asked for once");
  } else {
    library->own[family] = answered(OwnAddresses{family}, ask);
  }
}

/// Does what a script can do through its helpers.
void runSteps(pac_worker::PacEnvironment& environment) {
  auto& input = library->input;
  for (auto left = input.below(kMostSteps + 1); left > 0; --left) {
    library->hear();
    const auto step = input.below(4);
    const auto family = fuzz::someFamily(input);
    if (step == 0) {
      ownAddresses(environment, family);
    } else if (step == 1) {
      const auto text = fuzz::someText(input, kMaxResultBytes);
      library->expected.push_back(encode(FromWorker(Alert{base::utf8Head(text, kMaxAlertBytes)})));
      environment.alert(text);
    } else {
      resolve(environment, family, std::string(fuzz::someText(input, kMaxNameBytes + 1)));
    }
  }
}

}  // namespace

// Replacements for the end of the process and for the script engine, with the functions of their
// headers.

namespace pac_worker {

void endWorker(int code) {
  throw Ended{code};
}

struct ScriptEngine::Impl {
  PacEnvironment& environment;
};

ScriptEngine::ScriptEngine(PacEnvironment& environment, const ScriptLimits&, Preparation*)
    : mImpl(new Impl{environment}) {}
ScriptEngine::~ScriptEngine() = default;

std::optional<Problem> ScriptEngine::load(std::string_view script) {
  require(script == "script", "the script is the one that was given");
  require(library->take<Start>().has_value(), "a script is loaded after Start alone");
  runSteps(mImpl->environment);
  library->resolved.clear();
  library->own.clear();
  library->refused = library->input.below(4) == 1;
  if (!library->refused) {
    library->expected.push_back(encode(FromWorker(Ready{})));
    return std::nullopt;
  }
  Problem error{std::string(fuzz::someText(library->input, kMaxResultBytes)), 7};
  library->expected.push_back(
      encode(FromWorker(Refused{7, base::utf8Head(error.message, kMaxProblemBytes)})));
  return error;
}

Reply ScriptEngine::evaluate(std::string_view url, std::string_view host) {
  const auto question = library->take<Evaluate>();
  require(question && question->url == url && question->host == host,
          "what is evaluated is what was asked");
  const auto serial = question->serial;
  const std::string asked(question->url);
  runSteps(mImpl->environment);
  require(url == asked, "the texts outlive what the engine asks");
  library->resolved.clear();
  library->own.clear();
  Reply reply;
  if (library->input.below(2) == 0) {
    reply.result = std::string(library->input.byte(), 'r');
    library->expected.push_back(encode(FromWorker(Answer{serial, *reply.result})));
  } else {
    reply.problem = {std::string(fuzz::someText(library->input, kMaxResultBytes)), serial};
    const auto cut = base::utf8Head(reply.problem.message, kMaxProblemBytes);
    library->expected.push_back(encode(FromWorker(NoAnswer{serial, serial, cut})));
  }
  return reply;
}

}  // namespace pac_worker

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  Library thisLibrary(input);
  library = &thisLibrary;
  int ends[2];
  require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair");
  library->socket = UniqueFd(ends[0]);
  Channel channel{UniqueFd(ends[1])};
  library->say();
  try {
    pac_worker::Conversation conversation(channel);
    conversation.load("script");
    conversation.answerForEver();
  } catch (const Ended& ended) {
    require(ended.code == library->expectedCode(), "a worker ends where the rules are broken");
  }
  library->hear();
  require(library->expected.empty(), "what had to be said was said");
  return 0;
}
