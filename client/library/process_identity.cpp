#include "client/library/process_identity.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace client::library {

namespace {

std::atomic<unsigned> copiesMade = 0;

/// Counts from the loading of the library on. Without memory to note the handler the pid has to do.
[[maybe_unused]] const int isCounting =
    pthread_atfork(nullptr, nullptr, [] { copiesMade.fetch_add(1, std::memory_order_relaxed); });

}  // namespace

ProcessIdentity ProcessIdentity::current() noexcept {
  return {getpid(), copiesMade.load(std::memory_order_relaxed)};
}

}  // namespace client::library
