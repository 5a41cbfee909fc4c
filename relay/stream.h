// One connection to a client, to a server or through a proxy. It is plain, or it uses TLS by
// libcurl.
//
// No function keeps the caller's bytes: what the socket does not accept at once is copied. So all
// connections share one buffer for reading, and an idle connection needs no buffer.
#pragma once

#include <curl/curl.h>

#include <array>
#include <memory>
#include <string_view>

#include "base/unique_fd.h"
#include "relay/loop.h"

namespace relay {

/// Size of one read in bytes. No more than this waits in one direction.
inline constexpr std::size_t kBufferBytes = 64U << 10U;

/// Releases a libcurl handle in its ProxyConnector, which lives longer than all streams.
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
  /// Ends the sending direction. TLS by libcurl cannot do that: the caller closes the stream.
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
