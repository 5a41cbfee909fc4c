// The exception that ends the program before its work is done.
#pragma once

#include <stdexcept>
#include <string>

#include "client/ctl/exit_status.h"

namespace client {

/// Ends the program with `status` and one line on standard error.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& message)
      : std::runtime_error(message), mStatus(status) {}
  ExitStatus status() const { return mStatus; }

 private:
  ExitStatus mStatus;
};

}  // namespace client
