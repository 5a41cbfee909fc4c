// The file for a download, in a folder to which every user may write, such as /tmp.
//
// Other users can put anything at any name of such a folder at any moment. They cannot remove or
// rename a file of this process, because the folder is sticky. So the file is complete before it
// gets its name, and it gets the name by rename, which replaces the old file in one step. A program
// that plants files at the name in a loop gains nothing.
#pragma once

#include <string>

#include "base/unique_fd.h"

namespace fetcher {

/// Makes an empty file at `path`, mode 0644 without the bits of the umask, and opens it for
/// writing. A file, a link (not its target) or a fifo at that name is replaced. A folder of another
/// user is renamed. A folder of root or of this user stays, and the call fails.
/// @return the descriptor; none, with errno set, if the call fails
base::UniqueFd createTargetFile(const std::string& path);

/// Renames the file `from` to `to`, and replaces an existing file. A folder of another user is
/// renamed first, even if that user makes it again and again. A folder of root or of this user
/// stays, and the call fails.
/// @return false with errno
bool renameOver(const std::string& from, const std::string& to);

/// Removes temporary files of a killed process: the file at `path`, and the names that
/// createTargetFile(path) uses for its work. Removes only regular files of this process's user.
void removeLeftTargets(const std::string& path);

}  // namespace fetcher
