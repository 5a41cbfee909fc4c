// The messages between the library and its script worker.
//
// One message is one packet of a SOCK_SEQPACKET pair: a byte that names its kind, then its fields
// in the machine's own byte order. A text follows its 32-bit length. Both ends run on one machine
// and come from one build, so the protocol has no version. Each end treats the other as hostile. A
// decoder accepts a message only if every length and every enumerator is valid, and the total size
// is exactly right. Both ends also check that each kind of message arrives only when the protocol
// allows it.
//
//   library                              worker
//   Start                            ->
//                                    <-  Ready or Refused
//   Evaluate                         ->
//                                    <-  Answer or NoAnswer, with the serial of the question
//   Command (workbench only)         ->
//                                    <-  Report, any number; then Answer or NoAnswer
// While the worker loads or evaluates, it may send Alert, Resolve and OwnAddresses. The library
// answers each Resolve and each OwnAddresses with one Addresses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "engine/wire/address_family.h"

namespace pac_engine {

inline constexpr std::size_t kMaxUrlBytes = 8U << 10U;        ///< a URL, and its canonical form
inline constexpr std::size_t kMaxHostBytes = 8U << 10U;       ///< a host is part of a URL
inline constexpr std::size_t kMaxResultBytes = 64U << 10U;    ///< text that the entry point returns
inline constexpr std::size_t kMaxAlertBytes = 2U << 10U;      ///< all alerts of one evaluation
inline constexpr std::size_t kMaxCommandBytes = 64;           ///< the name of a command
inline constexpr std::size_t kMaxArgumentBytes = 32U << 10U;  ///< the argument of a command
inline constexpr std::size_t kMaxReportBytes = 64U << 10U;    ///< one piece of a report
inline constexpr std::size_t kMaxProblemBytes = 512;          ///< the reason for a missing answer
/// A name to look up, as UTF-8. The ASCII form of a name has 253 bytes at most, and its UTF-8 form
/// is at most four times as long.
inline constexpr std::size_t kMaxNameBytes = 1U << 10U;
inline constexpr std::size_t kMaxAddresses = 64;     ///< addresses of one name, or of this device
inline constexpr std::size_t kMaxAddressBytes = 45;  ///< longest text of an IPv6 address
/// Longest message: a result with its kind, serial and length.
inline constexpr std::size_t kMaxMessageBytes = kMaxResultBytes + 64;

/// Text fields are views into the decoded message, or into the sender's texts.

/// First message of the library: load the script.
struct Start {
  std::uint32_t timeLimitMs = 0;      ///< limit for a load or an evaluation
  std::optional<std::int64_t> clock;  ///< fixed time for the date helpers, seconds since 1970
};

struct Evaluate {
  std::uint32_t serial = 0;
  std::string_view url;
  std::string_view host;
};

/// A command for the workbench. Only `proxymanager-workbench` accepts it. The daemon's worker ends
/// if it gets a command or any other unexpected message.
struct Command {
  std::uint32_t serial = 0;
  std::string_view name;
  std::string_view argument;
};

/// Answer to Resolve and OwnAddresses.
struct Addresses {
  std::vector<std::string> texts;
};

/// The script is loaded.
struct Ready {};

/// The script is refused; the worker is about to end.
struct Refused {
  std::uint32_t line = 0;  ///< line of the script, from 1; 0 if no line is known
  std::string_view message;
};

struct Resolve {
  AddressFamily family = AddressFamily::kIpv4;
  std::string_view name;
};

struct OwnAddresses {
  AddressFamily family = AddressFamily::kIpv4;
};

struct Alert {
  std::string_view text;
};

/// A piece of the report of a command. All pieces in order are the whole report.
struct Report {
  std::string_view text;
};

struct Answer {
  std::uint32_t serial = 0;
  std::string_view result;  ///< ASCII
};

struct NoAnswer {
  std::uint32_t serial = 0;
  std::uint32_t line = 0;
  std::string_view message;
};

using FromLibrary = std::variant<Start, Evaluate, Addresses, Command>;
using FromWorker =
    std::variant<Ready, Refused, Resolve, OwnAddresses, Alert, Answer, NoAnswer, Report>;

/// The bytes of a message. The caller keeps texts and lists within the limits above.
std::string encode(const FromLibrary& message);
std::string encode(const FromWorker& message);

/// Decodes a message. Nothing if `bytes` are not a message in this direction.
std::optional<FromLibrary> decodeFromLibrary(std::string_view bytes);
std::optional<FromWorker> decodeFromWorker(std::string_view bytes);

}  // namespace pac_engine
