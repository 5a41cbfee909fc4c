// The messages between the daemon and proxymanager-fetch. Each message is one packet of their
// socket pair:
//
//   daemon                                   proxymanager-fetch
//   FetchRequest (at once)             ──>
//                                      <──   FetchReady (a libcurl handle; sandbox in force)
//   one byte with the open file        ──>
//                                      <──   FetchResult, then the process ends
//
// Each side treats the other as hostile: it accepts a packet only if its length, its mark and every
// field are right. Both ends come from one build on one machine, so numbers are in the machine's
// byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fetcher {

inline constexpr int kFetchSocket = 3;  ///< the number of the child's descriptor for its socket

/// Length of the longest URL, in bytes; a longer URL is not sent. Servers accept 8 to 16 KiB. The
/// limit is needed because a packet has to fit into the socket's buffer.
inline constexpr std::size_t kMostUrlBytes = std::size_t{64} * 1024;
/// Longest script, in bytes. The daemon never requests more, and the child process limits the
/// length of its file to this value. client/ctl/terminal/script_file.h and settings/network_set.h
/// have copies of this constant.
inline constexpr std::int64_t kMostScriptBytes = 512'000;
/// The text of an error, with its final zero.
inline constexpr std::size_t kErrorBytes = 512;
inline constexpr std::size_t kSchemeBytes = 16;  ///< "https" for example, with its final zero

/// The URL of a transfer, and its limits.
struct FetchRequest {
  std::int64_t seconds = 0;    ///< time limit of the whole transfer
  std::int64_t bytes = 0;      ///< maximum length of the body
  std::int64_t redirects = 0;  ///< maximum number of redirects
  std::string url;
};

struct FetchReady {
  enum class State : std::uint32_t {
    ready,     ///< there is a libcurl handle, and the sandbox is in force
    noHandle,  ///< libcurl did not make a handle
    noWalls    ///< a restriction failed; `problem` names it
  };
  State state = State::ready;
  bool limitsFiles = false;  ///< Landlock is in force
  std::string problem;
};

struct FetchResult {
  bool success = false;           ///< libcurl's code is CURLE_OK
  std::int32_t responseCode = 0;  ///< HTTP status of the last answer; 0 if there was none
  std::string scheme;             ///< the last URL's scheme, as libcurl writes it; empty if none
  std::string error;              ///< libcurl's text for its code; empty after a success
};

/// The packets as bytes. Texts that are too long are cut.
std::string encode(const FetchRequest& request);
std::string encode(const FetchReady& ready);
std::string encode(const FetchResult& result);

/// Decodes a packet. Returns nothing if the bytes are not a packet of this kind. In the child's
/// texts, "?" replaces each byte that is not printable ASCII.
std::optional<FetchRequest> decodeRequest(std::string_view bytes);
std::optional<FetchReady> decodeReady(std::string_view bytes);
std::optional<FetchResult> decodeResult(std::string_view bytes);

/// A buffer of this size has room for every packet and one more byte, so that the receiver notices
/// a packet that is too long.
inline constexpr std::size_t kPacketBufferBytes = kMostUrlBytes + 256;

}  // namespace fetcher
