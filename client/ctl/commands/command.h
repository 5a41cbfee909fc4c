// What main.cpp and the commands share. Each command is one file: it adds itself to the program's
// grammar, with its help, and leaves what is to be done once the whole command line is understood.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace client {

/// How the program ends. The low numbers say what became of the question; the high ones are those
/// of sysexits.h, so that a script can tell a wrong proxy script from a wrong command line; the
/// last two those of a shell.
enum ExitStatus : int {
  kAnswered = 0,
  kNoAnswer = 1,         ///< at least one URL got no answer
  kRefused = 2,          ///< the PAC script does not load
  kUsage = 64,           ///< the command line is wrong, or the address of the bus
  kBadData = 65,         ///< what was read is no password or URL
  kNoInput = 66,         ///< a file cannot be read
  kUnavailable = 69,     ///< there is no daemon, or no message bus
  kInternal = 70,        ///< no memory, or a fault of the program
  kOutput = 74,          ///< the output cannot be written
  kTryAgain = 75,        ///< no answer in time, or the daemon is about to end
  kProtocol = 76,        ///< what has the daemon's name does not answer as it does
  kDenied = 77,          ///< the bus does not allow it
  kCannotRun = 126,      ///< the command is there and cannot be run
  kNoSuchCommand = 127,  ///< the command is not there
};

/// Does what a command asks for. @return how the program ends; throws Failure
using Action = std::function<ExitStatus()>;

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
