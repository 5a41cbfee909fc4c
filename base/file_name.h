// Names that become one component of a path.
#pragma once

#include <cstring>

namespace base {

/// Whether `name`, appended to the path of a folder, names something in that folder: it is not
/// null, not empty, without a slash, not beginning with a dot.
inline bool isFileName(const char* name) {
  return name != nullptr && name[0] != '\0' && name[0] != '.' && std::strchr(name, '/') == nullptr;
}

}  // namespace base
