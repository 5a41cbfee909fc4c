// The owner of one file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace pac_engine {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.mFd, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return mFd; }
  explicit operator bool() const { return mFd >= 0; }
  void reset(int fd = -1) {
    if (mFd >= 0) close(mFd);
    mFd = fd;
  }

 private:
  int mFd = -1;
};

}  // namespace pac_engine
