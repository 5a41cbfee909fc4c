// The sandbox of the script worker and of the workbench. sandbox/walls.h has the functions that all
// child processes use. The list of system calls is in sandbox.cpp. The process enters the sandbox
// before it reads the first byte of a script.
//
// The sandbox is effective even if a script takes control of the engine. The process has no
// capability and gets no new privileges. Its user is nobody if root started the worker. Its network
// namespace is empty if the kernel allows one. Its memory is limited. It can make no new file,
// process or core dump, and no debugger may attach. A list allows only the few system calls that a
// running engine needs. Any other call kills the process. This list is the most important
// protection. The other restrictions are a second line of defence. If memory runs out, the kernel
// kills the worker first, before the program that started it.
#pragma once

#include <optional>
#include <string>

namespace pac_worker {

/// Address space of the worker. The engine's heap needs 64 MiB, and the copy when a block of the
/// heap grows may need another 64 MiB. The rest is for program, script and stack.
inline constexpr unsigned long kAddressSpaceBytes = 256UL << 20U;
inline constexpr unsigned long kStackBytes = 8UL << 20U;  ///< the engine may use 512 KiB of it

/// The memory limits of a worker. A program whose engine has other limits passes its own values.
struct MemoryWalls {
  unsigned long addressSpaceBytes = kAddressSpaceBytes;
  unsigned long stackBytes = kStackBytes;
};

/// Reads the zone rules (TZ, else /etc/localtime). Call it before enterSandbox(), because the rules
/// cannot be read later.
void loadZone();

/// Puts this process, which has one thread, into the sandbox. After that, the process can read and
/// write the socket `socket`, allocate and free memory, read the clock, and end.
/// @return nothing, or the step that failed and the reason; the process must then end
std::optional<std::string> enterSandbox(int socket, const MemoryWalls& memory = {});

}  // namespace pac_worker
