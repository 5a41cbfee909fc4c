#include "client/library/outcome.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

#include "client/library/bus_error.h"

namespace client::library {

namespace {

std::shared_ptr<const Detail> detail(int error, std::string_view name, std::string_view text) {
  try {
    return std::make_shared<Detail>(Detail{error, std::string(name), std::string(text)});
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

/// The last failure of a thread, with space for its texts. It has no destructor: the C library
/// needs memory to register the destructor of a thread_local, and ends the process if there is no
/// memory.
struct LastFailure {
  proxymanager_failure failure{PROXYMANAGER_OK, 0, "", ""};
  std::array<char, kMaxBusErrorName + 1> name{};
  std::array<char, kMaxFailureText + 1> text{};
};

thread_local LastFailure lastOfThread;

template <std::size_t kRoom>
const char* copy(std::string_view from, std::array<char, kRoom>& to) {
  const auto size = std::min(from.size(), to.size() - 1);
  std::copy_n(from.begin(), size, to.begin());
  to[size] = '\0';
  return to.data();
}

}  // namespace

proxymanager_status statusOfError(std::string_view name) {
  switch (busErrorOf(name)) {
    case BusError::kNotRunning:
    case BusError::kCannotStart:
    case BusError::kEnded:
      return PROXYMANAGER_NO_DAEMON;
    case BusError::kDenied:
      return PROXYMANAGER_DENIED;
    case BusError::kTimedOut:
      return PROXYMANAGER_TOO_SLOW;
    case BusError::kBusy:
      return PROXYMANAGER_BUSY;
    case BusError::kLost:
      return PROXYMANAGER_NO_BUS;
    case BusError::kUnknown:
      break;
  }
  return PROXYMANAGER_BAD_REPLY;
}

proxymanager_status statusOfConnecting(int error) {
  if (isDenial(error)) return PROXYMANAGER_DENIED;
  switch (error) {
    case ENOMEM:
    case EMFILE:
    case ENFILE:
      return PROXYMANAGER_NO_MEMORY;
    default:
      return PROXYMANAGER_NO_BUS;
  }
}

Outcome failedAnswer(std::string_view name, std::string_view text) noexcept {
  return {statusOfError(name), {}, detail(0, name, text)};
}

Outcome failedConnecting(int error) noexcept {
  return {statusOfConnecting(error), {}, detail(error, {}, {})};
}

Outcome tooSlow(bool isConnected) noexcept {
  if (isConnected) return {PROXYMANAGER_TOO_SLOW, {}, {}};
  return {PROXYMANAGER_TOO_SLOW, {}, detail(ETIMEDOUT, {}, {})};
}

Outcome failedSending(int error) noexcept {
  switch (error) {
    case ENOMEM:
      return {PROXYMANAGER_NO_MEMORY, {}, {}};
    case ENOBUFS:  // the library's queue of unsent messages is full
      return {PROXYMANAGER_BUSY, {}, {}};
    default:
      return failedAnswer(kDisconnected, "");
  }
}

void setLastFailure(const Outcome& outcome) noexcept {
  auto& last = lastOfThread;
  if (outcome.status == PROXYMANAGER_OK && last.failure.status == PROXYMANAGER_OK) return;
  last.failure = {outcome.status, 0, "", ""};
  if (!outcome.detail) return;
  last.failure.error = outcome.detail->error;
  last.failure.name = copy(outcome.detail->name, last.name);
  last.failure.text = copy(outcome.detail->text, last.text);
}

const proxymanager_failure* lastFailure() noexcept {
  return &lastOfThread.failure;
}

}  // namespace client::library
