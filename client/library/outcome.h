// How a question ended, and the bus's error text.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "client/library/answer.h"
#include "client/library/include/proxymanager/client.h"

namespace client::library {

/// Longest name of an error on the bus, in bytes. The bus refuses a longer name.
inline constexpr std::size_t kMaxBusErrorName = 255;

/// Maximum length of an error text that lastFailure() returns, in bytes. This is enough for a log
/// line.
inline constexpr std::size_t kMaxFailureText = 511;

/// Details of a failure, in addition to its status.
struct Detail {
  int error = 0;     ///< errno if the connection failed or is not ready yet
  std::string name;  ///< the name of the bus's error
  std::string text;  ///< the text of the bus's error, unchanged
};

/// How a question ended. A copy of an outcome needs no new memory, so an outcome can also report
/// that memory is exhausted.
struct Outcome {
  proxymanager_status status = PROXYMANAGER_OK;
  AnswerRef answer;                      ///< null unless the status is PROXYMANAGER_OK
  std::shared_ptr<const Detail> detail;  ///< null if there are no details, or no memory for them
};

/// The name of the error if the connection ends while a question waits.
inline constexpr std::string_view kDisconnected = "org.freedesktop.DBus.Error.Disconnected";

/// The status for the bus's error `name`.
proxymanager_status statusOfError(std::string_view name);

/// The status if no connection could be made; `error` is an errno.
proxymanager_status statusOfConnecting(int error);

/// The outcome for an error reply of the bus, or of the program that was asked.
Outcome failedAnswer(std::string_view name, std::string_view text) noexcept;

/// The outcome if there is no connection to the bus; `error` is an errno.
Outcome failedConnecting(int error) noexcept;

/// The outcome if the time limit of a question is over. If there is no connection to the bus yet,
/// the error is ETIMEDOUT.
Outcome tooSlow(bool isConnected) noexcept;

/// The outcome of a question that could not be sent. `error` is an errno.
Outcome failedSending(int error) noexcept;

/// Records how the last question of this thread ended, for lastFailure().
void setLastFailure(const Outcome& outcome) noexcept;

/// Does the work of proxymanager_last_failure() in the C interface.
const proxymanager_failure* lastFailure() noexcept;

}  // namespace client::library
