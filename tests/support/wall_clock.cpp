// This library is preloaded into the daemon. A test sets the daemon's wall clock with it, as an
// operator or a time server would.
//
// The clock of the kernel belongs to the machine and does not change. Test and daemon map the same
// file. The file contains the seconds by which the daemon's wall clock differs, and the number of
// times that the clock was read. As in the kernel, a wait that ends at a time of day notices a jump
// of the clock. All other clocks do not change.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

struct Shared {
  std::atomic<std::int64_t> secondsOff;
  std::atomic<std::int64_t> readings;
};

Shared* open() {
  static Shared unset{};
  const char* const path = std::getenv("WALL_CLOCK");
  const int fd = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return &unset;
  void* const mapped = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  return mapped == MAP_FAILED ? &unset : static_cast<Shared*>(mapped);
}

Shared& shared() {
  static Shared* const instance = open();
  return *instance;
}

timespec real(clockid_t id) {
  timespec time{};
  syscall(SYS_clock_gettime, id, &time);
  return time;
}

timespec wallClock() {
  timespec time = real(CLOCK_REALTIME);
  time.tv_sec += shared().secondsOff;
  ++shared().readings;
  return time;
}

// A wait notices a jump of the clock after this time.
constexpr long kSliceNanoseconds = 100'000'000;
constexpr long kSecond = 1'000'000'000;

}  // namespace

extern "C" {

int clock_gettime(clockid_t id, timespec* time) noexcept {
  if (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE) {
    *time = wallClock();
    return 0;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, id, time));
}

int gettimeofday(timeval* __restrict time, void* __restrict) noexcept {
  const timespec now = wallClock();
  *time = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

time_t time(time_t* result) noexcept {
  const time_t now = wallClock().tv_sec;
  if (result != nullptr) *result = now;
  return now;
}

// Waits for one slice of time. At the end of a slice, the caller gets a spurious wake-up, which
// POSIX allows. If this function waited again itself, it could miss a notification.
int pthread_cond_timedwait(pthread_cond_t* __restrict condition, pthread_mutex_t* __restrict mutex,
                           const timespec* __restrict until) {
  timespec slice = real(CLOCK_MONOTONIC);
  slice.tv_nsec += kSliceNanoseconds;
  slice.tv_sec += slice.tv_nsec / kSecond;
  slice.tv_nsec %= kSecond;
  const int result = pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &slice);
  if (result != ETIMEDOUT) return result;
  return wallClock().tv_sec >= until->tv_sec ? ETIMEDOUT : 0;
}
}
