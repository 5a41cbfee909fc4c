// Limits the files that a process may open, with the kernel's Landlock.
#pragma once

#include <optional>
#include <span>

#include "sandbox/walls.h"

namespace sandbox {

/// After this call, the process cannot open a file for writing, cannot make, move or remove a file,
/// and cannot run a program. It can read only the files `paths` and files in the folders `paths`. A
/// missing path is skipped. Links in a path are resolved during this call. Open descriptors keep
/// their rights. The process must have set no_new_privs before.
/// @param inForce receives whether the rule is in force; a kernel without Landlock is not a failure
Failure readOnly(std::span<const char* const> paths, bool& inForce);

}  // namespace sandbox
