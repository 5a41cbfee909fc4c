// Limits the files that a process may open, with the kernel's Landlock.
#pragma once

#include <optional>
#include <span>

#include "sandbox/walls.h"

namespace sandbox {

/// From here on this process opens no file for writing, makes, moves and removes none, runs no
/// program, and reads only what is at or below `paths`. A missing path is skipped; links in a path
/// are followed now. Descriptors that are open stay as they are. Needs no_new_privs.
/// @param inForce receives whether the rule holds; a kernel without Landlock is no failure
Failure readOnly(std::span<const char* const> paths, bool& inForce);

}  // namespace sandbox
