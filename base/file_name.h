// Names that become one component of a path.
#pragma once

#include <cstring>

namespace base {

/// Whether `name` may be used as the name of an entry in a folder: it is not null and not empty,
/// has no slash, and does not begin with a dot.
inline bool isFileName(const char* name) {
  return name != nullptr && name[0] != '\0' && name[0] != '.' && std::strchr(name, '/') == nullptr;
}

}  // namespace base
