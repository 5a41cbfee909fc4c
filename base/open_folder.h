// A folder that is open for reading its entries.
#pragma once

#include <dirent.h>

#include <memory>

namespace base {

struct FolderCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};
/// Closes the folder on destruction. The pointer is null if opendir() failed; errno then has the
/// reason.
using OpenFolder = std::unique_ptr<DIR, FolderCloser>;

}  // namespace base
