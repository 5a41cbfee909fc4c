// One connection, to a client, to a server or through a proxy: plain, or in TLS by libcurl.
//
// No call keeps the caller's bytes: what the socket does not take at once is copied. So all
// connections share one buffer for reading, and an idle one has none.
#pragma once

#include <curl/curl.h>

#include <array>
#include <memory>
#include <string_view>

#include "base/unique_fd.h"
#include "relay/loop.h"

namespace relay {

/// What is read from a connection at once, in bytes, and so the most that waits in a direction.
inline constexpr std::size_t kBufferBytes = 64U << 10U;

/// Gives a libcurl handle back to what made it (see ProxyConnector), which outlives all streams.
struct CurlRelease {
  CURLM* multi = nullptr;
  void operator()(CURL* handle) const {
    curl_multi_remove_handle(multi, handle);
    curl_easy_cleanup(handle);
  }
};
using CurlHandle = std::unique_ptr<CURL, CurlRelease>;

class Stream {
 public:
  static constexpr ssize_t kAgain = -1;
  static constexpr ssize_t kFailed = -2;

  /// Takes a connected socket.
  explicit Stream(Socket socket) : mSocket(std::move(socket)) {}
  /// A connection in TLS: the socket's descriptor belongs to the handle.
  Stream(Socket socket, CurlHandle tls) : mSocket(std::move(socket)), mTls(std::move(tls)) {}
  Stream(Stream&& other) noexcept = default;
  Stream& operator=(Stream&& other) noexcept;
  ~Stream() { close(); }

  /// @return the number of bytes read; 0 at the end of the stream; kAgain; kFailed
  ssize_t tryRead(char* bytes, std::size_t size);
  /// @return the number of bytes taken, at least 1; kAgain; kFailed
  ssize_t tryWrite(std::string_view bytes);
  /// Waits until there is something to read. @return false if the stream was closed meanwhile
  Task<bool> waitRead();
  Task<bool> waitWrite();
  /// Writes all of `bytes`. @return whether they were taken
  Task<bool> write(std::string_view bytes);
  /// Tells the other side that nothing more comes. TLS of libcurl cannot: the caller closes.
  void shutdownWrite();
  bool isTls() const { return mTls != nullptr; }
  bool isOpen() const { return mSocket.is_open(); }
  Socket& socket() { return mSocket; }
  void close();

 private:
  Socket mSocket;
  CurlHandle mTls;
};

/// The buffer that all connections read into; its bytes hold until the next wait.
std::array<char, kBufferBytes>& sharedBuffer();

}  // namespace relay
