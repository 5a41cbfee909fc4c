// The script that the worker receives.
#pragma once

#include <optional>
#include <string_view>

namespace pac_worker {

/// Maps the script's memory file, reads no byte of it, and closes its descriptor.
/// @return the bytes, valid until unmap(); no value if they cannot be mapped
std::optional<std::string_view> mappedScript();

void unmap(std::string_view script);

}  // namespace pac_worker
