#include "engine/wire/protocol.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace pac_engine {

namespace {

enum class Kind : std::uint8_t {
  kStart = 1,
  kEvaluate,
  kAddresses,
  kReady,
  kRefused,
  kResolve,
  kOwnAddresses,
  kAlert,
  kAnswer,
  kNoAnswer,
  kCommand,
  kReport
};

class Writer {
 public:
  explicit Writer(Kind kind) { number(static_cast<std::uint8_t>(kind)); }

  template <typename Number>
  Writer& number(Number value) {
    static_assert(std::is_integral_v<Number>);
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    mBytes.append(bytes, sizeof value);
    return *this;
  }

  Writer& text(std::string_view value) {
    number(static_cast<std::uint32_t>(value.size()));
    mBytes.append(value);
    return *this;
  }

  std::string take() { return std::move(mBytes); }

 private:
  std::string mBytes;
};

/// Takes fields from the front. After the first missing or invalid field, all further fields are
/// invalid.
class Reader {
 public:
  explicit Reader(std::string_view bytes)
      : mLeft(bytes), mValid(bytes.size() <= kMaxMessageBytes) {}

  template <typename Number>
  Number number() {
    Number value{};
    if (!mValid || mLeft.size() < sizeof value) {
      mValid = false;
      return value;
    }
    std::memcpy(&value, mLeft.data(), sizeof value);
    mLeft.remove_prefix(sizeof value);
    return value;
  }

  std::string_view text(std::size_t limit) {
    const auto length = number<std::uint32_t>();
    if (!mValid || length > limit || length > mLeft.size()) {
      mValid = false;
      return {};
    }
    const auto value = mLeft.substr(0, length);
    mLeft.remove_prefix(length);
    return value;
  }

  bool flag() {
    const auto value = number<std::uint8_t>();
    require(value <= 1);
    return value == 1;
  }

  AddressFamily family() { return flag() ? AddressFamily::kAny : AddressFamily::kIpv4; }

  void require(bool condition) { mValid = mValid && condition; }

  /// Whether all fields were valid and no byte remains.
  bool done() const { return mValid && mLeft.empty(); }

 private:
  std::string_view mLeft;
  bool mValid;
};

bool isAscii(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return (static_cast<unsigned char>(c) & 0x80U) != 0; });
}

std::uint8_t byteOf(AddressFamily family) {
  return family == AddressFamily::kAny ? 1 : 0;
}

struct Encoder {
  std::string operator()(const Start& m) const {
    Writer writer(Kind::kStart);
    writer.number(m.timeLimitMs).number(std::uint8_t{m.clock.has_value()});
    return writer.number(m.clock.value_or(0)).take();
  }
  std::string operator()(const Evaluate& m) const {
    return Writer(Kind::kEvaluate).number(m.serial).text(m.url).text(m.host).take();
  }
  std::string operator()(const Command& m) const {
    return Writer(Kind::kCommand).number(m.serial).text(m.name).text(m.argument).take();
  }
  std::string operator()(const Addresses& m) const {
    Writer writer(Kind::kAddresses);
    writer.number(static_cast<std::uint32_t>(m.texts.size()));
    for (const auto& text : m.texts) writer.text(text);
    return writer.take();
  }
  std::string operator()(const Ready&) const { return Writer(Kind::kReady).take(); }
  std::string operator()(const Refused& m) const {
    return Writer(Kind::kRefused).number(m.line).text(m.message).take();
  }
  std::string operator()(const Resolve& m) const {
    return Writer(Kind::kResolve).number(byteOf(m.family)).text(m.name).take();
  }
  std::string operator()(const OwnAddresses& m) const {
    return Writer(Kind::kOwnAddresses).number(byteOf(m.family)).take();
  }
  std::string operator()(const Alert& m) const { return Writer(Kind::kAlert).text(m.text).take(); }
  std::string operator()(const Answer& m) const {
    return Writer(Kind::kAnswer).number(m.serial).text(m.result).take();
  }
  std::string operator()(const NoAnswer& m) const {
    Writer writer(Kind::kNoAnswer);
    return writer.number(m.serial).number(m.line).text(m.message).take();
  }
  std::string operator()(const Report& m) const {
    return Writer(Kind::kReport).text(m.text).take();
  }
};

Start readStart(Reader& reader) {
  Start message;
  message.timeLimitMs = reader.number<std::uint32_t>();
  const bool fixed = reader.flag();
  const auto clock = reader.number<std::int64_t>();
  reader.require(fixed || clock == 0);
  if (fixed) message.clock = clock;
  return message;
}

Evaluate readEvaluate(Reader& reader) {
  Evaluate message;
  message.serial = reader.number<std::uint32_t>();
  message.url = reader.text(kMaxUrlBytes);
  message.host = reader.text(kMaxHostBytes);
  return message;
}

Command readCommand(Reader& reader) {
  Command message;
  message.serial = reader.number<std::uint32_t>();
  message.name = reader.text(kMaxCommandBytes);
  message.argument = reader.text(kMaxArgumentBytes);
  return message;
}

Addresses readAddresses(Reader& reader) {
  Addresses message;
  const auto count = reader.number<std::uint32_t>();
  reader.require(count <= kMaxAddresses);
  for (std::uint32_t i = 0; i < std::min<std::size_t>(count, kMaxAddresses); ++i) {
    message.texts.emplace_back(reader.text(kMaxAddressBytes));
  }
  return message;
}

Refused readRefused(Reader& reader) {
  Refused message;
  message.line = reader.number<std::uint32_t>();
  message.message = reader.text(kMaxProblemBytes);
  return message;
}

Resolve readResolve(Reader& reader) {
  Resolve message;
  message.family = reader.family();
  message.name = reader.text(kMaxNameBytes);
  return message;
}

Answer readAnswer(Reader& reader) {
  Answer message;
  message.serial = reader.number<std::uint32_t>();
  message.result = reader.text(kMaxResultBytes);
  reader.require(isAscii(message.result));
  return message;
}

NoAnswer readNoAnswer(Reader& reader) {
  NoAnswer message;
  message.serial = reader.number<std::uint32_t>();
  message.line = reader.number<std::uint32_t>();
  message.message = reader.text(kMaxProblemBytes);
  return message;
}

/// `message` if all fields of `reader` were valid and no byte remains; else nothing.
template <typename Direction, typename Message>
std::optional<Direction> whole(const Reader& reader, Message&& message) {
  if (!reader.done()) return std::nullopt;
  return Direction{std::forward<Message>(message)};
}

}  // namespace

std::string encode(const FromLibrary& message) {
  return std::visit(Encoder{}, message);
}
std::string encode(const FromWorker& message) {
  return std::visit(Encoder{}, message);
}

std::optional<FromLibrary> decodeFromLibrary(std::string_view bytes) {
  Reader reader(bytes);
  // The message must be read before `reader` can report whether all fields were valid.
  const auto take = [&reader](auto message) { return whole<FromLibrary>(reader, message); };
  switch (Kind{reader.number<std::uint8_t>()}) {
    case Kind::kStart:
      return take(readStart(reader));
    case Kind::kEvaluate:
      return take(readEvaluate(reader));
    case Kind::kAddresses:
      return take(readAddresses(reader));
    case Kind::kCommand:
      return take(readCommand(reader));
    default:
      return std::nullopt;
  }
}

std::optional<FromWorker> decodeFromWorker(std::string_view bytes) {
  Reader reader(bytes);
  const auto take = [&reader](auto message) { return whole<FromWorker>(reader, message); };
  switch (Kind{reader.number<std::uint8_t>()}) {
    case Kind::kReady:
      return take(Ready{});
    case Kind::kRefused:
      return take(readRefused(reader));
    case Kind::kResolve:
      return take(readResolve(reader));
    case Kind::kOwnAddresses:
      return take(OwnAddresses{reader.family()});
    case Kind::kAlert:
      return take(Alert{reader.text(kMaxAlertBytes)});
    case Kind::kAnswer:
      return take(readAnswer(reader));
    case Kind::kNoAnswer:
      return take(readNoAnswer(reader));
    case Kind::kReport:
      return take(Report{reader.text(kMaxReportBytes)});
    default:
      return std::nullopt;
  }
}

}  // namespace pac_engine
