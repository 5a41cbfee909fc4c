// Tests the messages between library and worker. Both decoders get any bytes. In addition, messages
// are made from the input's bytes, and are encoded and decoded. An accepted message is within the
// limits and has only one encoding.
#include <algorithm>
#include <string>

#include "engine/wire/protocol.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/messages.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace pac_engine;

namespace {

struct Limits {
  void operator()(const Start&) const {}
  void operator()(const Ready&) const {}
  void operator()(const OwnAddresses&) const {}
  void operator()(const Evaluate& m) const {
    require(m.url.size() <= kMaxUrlBytes && m.host.size() <= kMaxHostBytes, "URL and host: 8 KiB");
  }
  void operator()(const Command& m) const {
    require(m.name.size() <= kMaxCommandBytes, "name of a command: 64 bytes");
    require(m.argument.size() <= kMaxArgumentBytes, "argument: 32 KiB");
  }
  void operator()(const Report& m) const {
    require(m.text.size() <= kMaxReportBytes, "piece of a report: 64 KiB");
  }
  void operator()(const Addresses& m) const {
    require(m.texts.size() <= kMaxAddresses, "64 addresses");
    for (const auto& text : m.texts) require(text.size() <= kMaxAddressBytes, "of 45 bytes");
  }
  void operator()(const Resolve& m) const {
    require(m.name.size() <= kMaxNameBytes, "name: 1 KiB");
  }
  void operator()(const Alert& m) const {
    require(m.text.size() <= kMaxAlertBytes, "alert: 2 KiB");
  }
  void operator()(const Refused& m) const { problem(m.message); }
  void operator()(const NoAnswer& m) const { problem(m.message); }
  void operator()(const Answer& m) const {
    require(m.result.size() <= kMaxResultBytes, "result: 64 KiB");
    require(std::all_of(m.result.begin(), m.result.end(), [](unsigned char c) { return c < 0x80; }),
            "of ASCII");
  }

 private:
  static void problem(std::string_view text) {
    require(text.size() <= kMaxProblemBytes, "problem: 512 bytes");
  }
};

template <typename Message>
void checkTaken(std::string_view bytes, const std::optional<Message>& message) {
  if (!message) return;
  require(bytes.size() <= kMaxMessageBytes, "no message is longer than the longest");
  std::visit(Limits{}, *message);
  require(encode(*message) == bytes, "a message has one encoding");
}

void checkMade(fuzz::Input& input) {
  if (input.below(2) == 0) {
    const auto bytes = encode(fuzz::messageOfLibrary(input));
    const auto back = decodeFromLibrary(bytes);
    require(back && encode(*back) == bytes, "what the library says is understood");
    require(!decodeFromWorker(bytes), "and is nothing that a worker says");
  } else {
    const auto bytes = encode(fuzz::messageOfWorker(input));
    const auto back = decodeFromWorker(bytes);
    require(back && encode(*back) == bytes, "what a worker says is understood");
    require(!decodeFromLibrary(bytes), "and is nothing that the library says");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto bytes = fuzz::textOf(data, size);
  const auto library = decodeFromLibrary(bytes);
  const auto worker = decodeFromWorker(bytes);
  require(!library || !worker, "no message goes both ways");
  checkTaken(bytes, library);
  checkTaken(bytes, worker);
  fuzz::Input input(data, size);
  checkMade(input);
  return 0;
}
