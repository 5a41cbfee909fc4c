// The function that each target in this folder defines. libFuzzer or the replay calls it for each
// input.
#pragma once

#include <cstddef>
#include <cstdint>

/// Tries one input. A wrong property ends the process (require.h). @return 0
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
