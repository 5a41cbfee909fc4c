// What the daemon and proxymanager-fetch send each other over their socket pair, one packet each:
//
//   daemon                                   proxymanager-fetch
//   FetchRequest (at once)             ──>
//                                      <──   FetchReady (a libcurl handle, and the walls stand)
//   one byte with the open file        ──>
//                                      <──   FetchResult, then the process ends
//
// Each side takes the other for hostile: a packet is taken only if its length, its mark and every
// field are right. Both ends are of one build on one machine, so numbers have the machine's order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fetcher {

inline constexpr int kFetchSocket = 3;  ///< the descriptor that the child finds its socket at

/// Longer URLs are not asked for: servers take 8 to 16 KiB, and a packet has to fit in the socket.
inline constexpr std::size_t kMostUrlBytes = std::size_t{64} * 1024;
/// The text of an error, with its final zero.
inline constexpr std::size_t kErrorBytes = 512;
inline constexpr std::size_t kSchemeBytes = 16;  ///< "https" and its like, with its final zero

/// What is to be fetched, and how far a transfer may go.
struct FetchRequest {
  std::int64_t seconds = 0;    ///< of the whole transfer
  std::int64_t bytes = 0;      ///< of the body
  std::int64_t redirects = 0;  ///< that are followed
  std::string url;
};

struct FetchReady {
  enum class State : std::uint32_t {
    ready,     ///< libcurl gave a handle, and the walls stand
    noHandle,  ///< libcurl gave none
    noWalls    ///< a wall could not be raised; `problem` names it
  };
  State state = State::ready;
  bool limitsFiles = false;  ///< the kernel has Landlock, and it is in force
  std::string problem;
};

struct FetchResult {
  bool success = false;           ///< libcurl's code is CURLE_OK
  std::int32_t responseCode = 0;  ///< of the last answer; 0 without one
  std::string scheme;             ///< of the last URL, as libcurl writes it; empty if there is none
  std::string error;              ///< libcurl's text for its code; empty after a success
};

/// The packets as bytes. Texts that are too long are cut.
std::string encode(const FetchRequest& request);
std::string encode(const FetchReady& ready);
std::string encode(const FetchResult& result);

/// The packets of bytes; nothing if the bytes are no such packet. Texts of the child come out with
/// "?" in place of each byte that is not printable ASCII.
std::optional<FetchRequest> decodeRequest(std::string_view bytes);
std::optional<FetchReady> decodeReady(std::string_view bytes);
std::optional<FetchResult> decodeResult(std::string_view bytes);

/// A buffer of this size holds every packet, and one byte more, so that a longer one is seen to be
/// longer.
inline constexpr std::size_t kPacketBufferBytes = kMostUrlBytes + 256;

}  // namespace fetcher
