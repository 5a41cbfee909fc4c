#include "client/library/outcome.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <new>
#include <utility>

namespace client::library {

namespace {

constexpr std::string_view kErrors = "org.freedesktop.DBus.Error.";

std::shared_ptr<const Detail> detail(int error, std::string_view name, std::string_view text) {
  try {
    return std::make_shared<Detail>(Detail{error, std::string(name), std::string(text)});
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

/// Keeps a detail for each thread, as long as it lives. Not as a thread_local with a destructor:
/// the C library ends the process where it has no memory to note one.
class KeptDetail {
 public:
  KeptDetail() : mIsMade(pthread_key_create(&mKey, [](void* kept) { delete of(kept); }) == 0) {}
  ~KeptDetail() {
    if (mIsMade) pthread_key_delete(mKey);  // before what it calls is unloaded
  }
  KeptDetail(const KeptDetail&) = delete;
  KeptDetail& operator=(const KeptDetail&) = delete;

  /// @return null where there is none, or no memory to keep it
  const Detail* keep(std::shared_ptr<const Detail> detail) noexcept {
    if (!mIsMade) return nullptr;
    auto* kept = of(pthread_getspecific(mKey));
    if (kept == nullptr) {
      if (!detail) return nullptr;
      kept = new (std::nothrow) Held;
      if (kept == nullptr) return nullptr;
      if (pthread_setspecific(mKey, kept) != 0) {
        delete kept;
        return nullptr;
      }
    }
    *kept = std::move(detail);
    return kept->get();
  }

 private:
  using Held = std::shared_ptr<const Detail>;
  static Held* of(void* kept) { return static_cast<Held*>(kept); }

  pthread_key_t mKey{};
  bool mIsMade;
};

KeptDetail keptDetail;
thread_local proxymanager_failure lastOfThread{PROXYMANAGER_OK, 0, "", ""};

}  // namespace

proxymanager_status statusOfError(std::string_view name) {
  // The supervisor's own errors, where it is asked to start the daemon.
  if (name.starts_with("org.freedesktop.systemd1.")) return PROXYMANAGER_NO_DAEMON;
  if (!name.starts_with(kErrors)) return PROXYMANAGER_BAD_REPLY;
  name.remove_prefix(kErrors.size());
  const auto isOneOf = [&](std::initializer_list<std::string_view> names) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };
  // TimedOut is the bus's word for a daemon that does not start; it ends calls with NoReply.
  if (name.starts_with("Spawn.") ||
      isOneOf({"ServiceUnknown", "NameHasNoOwner", "NoReply", "TimedOut"})) {
    return PROXYMANAGER_NO_DAEMON;
  }
  if (isOneOf({"AccessDenied", "AuthFailed"})) return PROXYMANAGER_DENIED;
  if (isOneOf({"Timeout"})) return PROXYMANAGER_TOO_SLOW;
  if (isOneOf({"LimitsExceeded", "NoMemory"})) return PROXYMANAGER_BUSY;
  if (isOneOf({"Disconnected", "NoServer"})) return PROXYMANAGER_NO_BUS;
  return PROXYMANAGER_BAD_REPLY;
}

proxymanager_status statusOfConnecting(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
    case ECONNRESET:  // the bus says no word to those that it does not let in
    case EPIPE:
    case ENOTCONN:
      return PROXYMANAGER_DENIED;
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
    case ENOBUFS:  // what the bus has not taken yet is as much as the library keeps
      return {PROXYMANAGER_BUSY, {}, {}};
    default:
      return failedAnswer(kDisconnected, "");
  }
}

void setLastFailure(const Outcome& outcome) noexcept {
  if (outcome.status == PROXYMANAGER_OK && lastOfThread.status == PROXYMANAGER_OK) return;
  const auto* const detail = keptDetail.keep(outcome.detail);
  lastOfThread = {outcome.status, 0, "", ""};
  if (detail != nullptr) {
    lastOfThread = {outcome.status, detail->error, detail->name.c_str(), detail->text.c_str()};
  }
}

const proxymanager_failure* lastFailure() noexcept {
  return &lastOfThread;
}

}  // namespace client::library
