// The restrictions ("walls") that are common to all child processes. A child process puts these
// restrictions on itself before it reads the first byte of the foreign data that it parses. Each
// program calls the functions below in their order: the script worker in engine/worker/sandbox.h,
// the download in fetcher/child/walls.h. The program sets its list of system calls (system_calls.h)
// last, because the other functions need calls that no list allows.
//
// All functions are called by a process that has one thread.
#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace sandbox {

/// Empty if the restriction is in force; otherwise the name of the restriction that failed, and the
/// reason. If there is a failure, the process must end without reading anything.
using Failure = std::optional<std::string>;

/// A failure with the text "WHAT: TEXT OF ERRNO".
Failure failed(const std::string& what);

enum class Network : std::uint8_t {
  keep,  ///< the process stays in the network in which it was started
  leave  ///< an empty network if the kernel allows one; if not, this is not a failure
};

/// Gives up every privilege. The process gets no new privileges when it starts a program. If it
/// runs as root, it gets the user and group nobody and no supplementary group. It has no
/// capability. Its bounding set is empty if it may empty the set. Other processes of the same user
/// cannot debug it or read its memory, and it leaves no core dump. A process that does not run as
/// root keeps its user.
Failure giveUpPrivileges(Network network);

/// After this call, the kernel ends this process first if memory runs out. If the system has no
/// such setting, this is not a failure. Call it before giveUpPrivileges.
void volunteerForOutOfMemory();

struct Limit {
  decltype(RLIMIT_AS) resource;
  rlim_t value;
  const char* name;  ///< the limit's name in the report of a failure
};

/// Sets soft and hard limits. An existing tighter limit stays.
Failure limitResources(std::span<const Limit> limits);

/// Sets the stack limit to `bytes`, because the process may have been started with a lower limit
/// than it needs. A hard limit below `bytes` stays.
Failure setStackLimit(rlim_t bytes);

}  // namespace sandbox
