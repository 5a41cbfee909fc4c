// The end of each help of a command that talks to the daemon.
#pragma once

namespace client {

/// The statuses that all of them share, a line for each.
inline constexpr const char* kBusStatuses =
    R"(  64   the command line is wrong, or the address of the message bus
  69   the daemon does not run, or there is no message bus
  70   no memory, or a fault of the program
  74   the output cannot be written
  75   no answer in time, or the daemon is about to end; try again
  76   what has the daemon's name does not answer as it does
  77   the bus does not allow it; root may do all, and so may members of the
       group proxymanager
)";

}  // namespace client
