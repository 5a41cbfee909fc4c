// The function that each file of this folder defines: one call of a target, by libFuzzer or by the
// replay.
#pragma once

#include <cstddef>
#include <cstdint>

/// Tries one input. A wrong property ends the process (require.h). @return 0
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
