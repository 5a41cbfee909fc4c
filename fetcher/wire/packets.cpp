#include "fetcher/wire/packets.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace fetcher {

namespace {

constexpr std::uint32_t kRequestMark = 0x504d4651;
constexpr std::uint32_t kReadyMark = 0x504d4652;
constexpr std::uint32_t kResultMark = 0x504d4653;

/// This record comes before the URL. The URL is the rest of the packet.
struct RequestHead {
  std::uint32_t mark;
  std::uint32_t urlBytes;
  std::int64_t seconds;
  std::int64_t bytes;
  std::int64_t redirects;
};

struct ReadyPacket {
  std::uint32_t mark;
  std::uint32_t state;
  std::uint32_t limitsFiles;
  char problem[kErrorBytes];
};

struct ResultPacket {
  std::uint32_t mark;
  std::uint32_t success;
  std::int32_t responseCode;
  char scheme[kSchemeBytes];
  char error[kErrorBytes];
};

static_assert(sizeof(ResultPacket) < kPacketBufferBytes);
static_assert(sizeof(RequestHead) + kMostUrlBytes < kPacketBufferBytes);

template <typename Packet>
std::string bytesOf(const Packet& packet) {
  static_assert(std::has_unique_object_representations_v<Packet>, "no padding is sent");
  return {reinterpret_cast<const char*>(&packet), sizeof packet};
}

template <typename Packet>
bool read(std::string_view bytes, std::uint32_t mark, Packet& packet) {
  if (bytes.size() < sizeof packet) return false;
  std::memcpy(&packet, bytes.data(), sizeof packet);
  return packet.mark == mark;
}

template <std::size_t size>
void put(char (&field)[size], const std::string& text) {
  text.copy(field, size - 1);
}

/// The field's text up to its terminating zero. A field without a zero is invalid.
template <std::size_t size>
bool take(const char (&field)[size], std::string& text) {
  const auto length = strnlen(field, size);
  if (length == size) return false;
  text.assign(field, length);
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return true;
}

}  // namespace

std::string encode(const FetchRequest& request) {
  const auto length = std::min(request.url.size(), kMostUrlBytes);
  const RequestHead head{kRequestMark, static_cast<std::uint32_t>(length), request.seconds,
                         request.bytes, request.redirects};
  return bytesOf(head) + request.url.substr(0, length);
}

std::string encode(const FetchReady& ready) {
  ReadyPacket packet{kReadyMark, static_cast<std::uint32_t>(ready.state), ready.limitsFiles, {}};
  put(packet.problem, ready.problem);
  return bytesOf(packet);
}

std::string encode(const FetchResult& result) {
  ResultPacket packet{kResultMark, result.success, result.responseCode, {}, {}};
  put(packet.scheme, result.scheme);
  put(packet.error, result.error);
  return bytesOf(packet);
}

std::optional<FetchRequest> decodeRequest(std::string_view bytes) {
  RequestHead head{};
  if (!read(bytes, kRequestMark, head)) return std::nullopt;
  const auto url = bytes.substr(sizeof head);
  if (url.size() != head.urlBytes || url.size() > kMostUrlBytes) return std::nullopt;
  if (head.seconds <= 0 || head.bytes <= 0 || head.redirects < 0) return std::nullopt;
  return FetchRequest{head.seconds, head.bytes, head.redirects, std::string(url)};
}

std::optional<FetchReady> decodeReady(std::string_view bytes) {
  ReadyPacket packet{};
  if (bytes.size() != sizeof packet || !read(bytes, kReadyMark, packet)) return std::nullopt;
  const auto last = static_cast<std::uint32_t>(FetchReady::State::noWalls);
  if (packet.state > last || packet.limitsFiles > 1) return std::nullopt;
  FetchReady ready{static_cast<FetchReady::State>(packet.state), packet.limitsFiles == 1, {}};
  if (!take(packet.problem, ready.problem)) return std::nullopt;
  return ready;
}

std::optional<FetchResult> decodeResult(std::string_view bytes) {
  ResultPacket packet{};
  if (bytes.size() != sizeof packet || !read(bytes, kResultMark, packet)) return std::nullopt;
  if (packet.success > 1) return std::nullopt;
  FetchResult result{packet.success == 1, packet.responseCode, {}, {}};
  if (!take(packet.scheme, result.scheme) || !take(packet.error, result.error)) return std::nullopt;
  return result;
}

}  // namespace fetcher
