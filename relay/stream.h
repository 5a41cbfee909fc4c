// One connection to a client, to a server or through a proxy. Either it is not encrypted, or
// libcurl encrypts it with TLS.
//
// No function keeps the caller's bytes. If the socket does not accept all bytes at once, the caller
// copies the remaining bytes. So all connections can share one read buffer, and an idle connection
// needs no buffer.
#pragma once

#include <curl/curl.h>

#include <array>
#include <memory>
#include <string_view>

#include "base/unique_fd.h"
#include "relay/loop.h"

namespace relay {

/// Size of one read, in bytes. It is also the maximum number of bytes that wait in one direction.
inline constexpr std::size_t kBufferBytes = 64U << 10U;

/// Returns a libcurl handle to its ProxyConnector, which lives longer than all streams.
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

  /// Takes ownership of a connected socket.
  explicit Stream(Socket socket) : mSocket(std::move(socket)) {}
  /// A TLS connection: the handle owns the socket's descriptor.
  Stream(Socket socket, CurlHandle tls) : mSocket(std::move(socket)), mTls(std::move(tls)) {}
  Stream(Stream&& other) noexcept = default;
  Stream& operator=(Stream&& other) noexcept;
  ~Stream() { close(); }

  /// @return the number of bytes read; 0 at the end of the stream; kAgain; kFailed
  ssize_t tryRead(char* bytes, std::size_t size);
  /// @return the number of bytes written, at least 1; kAgain; kFailed
  ssize_t tryWrite(std::string_view bytes);
  /// Waits until there are bytes to read. @return false if the stream was closed meanwhile
  Task<bool> waitRead();
  Task<bool> waitWrite();
  /// Writes all `bytes`. @return whether the write succeeded
  Task<bool> write(std::string_view bytes);
  /// Whether the other end has sent nothing and has not ended the stream. If the other end has sent
  /// something, one byte of it is lost.
  bool isQuiet();
  /// After this call, the other end sees a reset when this stream closes.
  void abandon();
  /// Ends the sending direction. libcurl cannot do this for TLS: the caller closes the stream
  /// instead.
  void shutdownWrite();
  bool isTls() const { return mTls != nullptr; }
  bool isOpen() const { return mSocket.is_open(); }
  Socket& socket() { return mSocket; }
  void close();

 private:
  Socket mSocket;
  CurlHandle mTls;
};

/// The buffer for all reads. Its content is valid until the next wait.
std::array<char, kBufferBytes>& sharedBuffer();

}  // namespace relay
