// The owner of one file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace base {

/// Closes its descriptor when the object is destroyed or gets another descriptor. Closing does not
/// change `errno`. So if a function fails and returns, its caller still finds the reason in
/// `errno`.
class UniqueFd {
 public:
  UniqueFd() = default;
  /// Takes ownership of `fd`. A negative `fd`, which open() returns on failure, means no
  /// descriptor.
  explicit UniqueFd(int fd) noexcept : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  /// @return the descriptor, still owned; negative if there is none
  int get() const noexcept { return mFd; }
  explicit operator bool() const noexcept { return mFd >= 0; }
  /// @return the descriptor, which the caller now owns; negative if there is none
  [[nodiscard]] int release() noexcept { return std::exchange(mFd, -1); }
  void reset(int fd = -1) noexcept {
    const int error = errno;
    if (mFd >= 0) close(mFd);
    mFd = fd;
    errno = error;
  }

 private:
  int mFd = -1;
};

}  // namespace base
