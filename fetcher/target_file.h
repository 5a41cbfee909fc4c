// The file for a download, in a folder to which every user may write, such as /tmp.
//
// Other users can create any kind of file in such a folder, under any name, at any moment. They
// cannot remove or rename a file of this process, because the folder is sticky. So
// createTargetFile() makes an empty file under a random name and renames it to `path`. When the
// download is complete, renameOver() gives the file its final name. A rename replaces an old file
// in one step, so a program that creates files at these names in a loop has no advantage.
#pragma once

#include <string>

#include "base/unique_fd.h"

namespace fetcher {

/// Makes an empty file at `path` and opens it for writing. Its mode is 0644 without the bits of the
/// umask. An existing file, link (not its target) or fifo at that name is replaced. A folder of
/// another user is renamed. If there is a folder of root or of this user, it stays, and the call
/// fails.
/// @return the descriptor; after a failure no descriptor, with errno set
base::UniqueFd createTargetFile(const std::string& path);

/// Renames the file `from` to `to`, and replaces an existing file. A folder of another user at `to`
/// is renamed first. If that user creates it again, the function tries again, 100 times at most. If
/// there is a folder of root or of this user, it stays, and the call fails.
/// @return false with errno
bool renameOver(const std::string& from, const std::string& to);

/// Removes the temporary files that a killed process has left: the file at `path`, and files with
/// the temporary names that createTargetFile(path) uses. Removes only regular files of this
/// process's user.
void removeLeftTargets(const std::string& path);

}  // namespace fetcher
