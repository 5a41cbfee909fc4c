// The file that takes a download, in a folder that may be everybody's, such as /tmp.
//
// Other users can put anything at any name of such a folder at any moment, but they can neither
// remove nor rename what is this process's there (the folder is sticky). So the file is complete
// before it gets its name, and takes the name by rename, which replaces what stands there in one
// step: a loop that plants files at the name wins nothing.
#pragma once

#include <string>

#include "base/unique_fd.h"

namespace fetcher {

/// Makes an empty file at `path`, mode 0644 less the process's mask, and opens it for writing. What
/// stands at the name is replaced: a file, a link (not what it points to) or a fifo. A folder of
/// another user is renamed aside; a folder of root's or of this user's stays, and the call fails.
/// @return none, with errno, if there is no file
base::UniqueFd createTargetFile(const std::string& path);

/// Renames the file `from` to `to`, over whatever stands there. Another user's folder is renamed
/// aside first, also if that user makes a new one again and again; a folder of root's or of this
/// user's stays, and the call fails.
/// @return false with errno
bool renameOver(const std::string& from, const std::string& to);

/// Removes what a process that was killed left under the names that createTargetFile(path) takes on
/// the way. Only files of this process's user.
void removeLeftTargets(const std::string& path);

}  // namespace fetcher
