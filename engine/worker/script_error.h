// The text of an exception that a script has thrown.
#pragma once

#include <string_view>

#include "engine/worker/engine_runtime.h"

namespace pac_worker {

/// The name that the script has in the engine's stack traces.
inline constexpr char kScriptName[] = "script.pac";

/// Longest text of an error.
inline constexpr std::size_t kErrorBytes = 512;

/// Removes the pending exception and describes it. No code of the script runs: only primitive
/// values and data properties of real Error objects are read.
Problem takeException(JSContext* context);

/// An error from our own code. The text is cut and made printable.
Problem errorOf(std::string_view message);

}  // namespace pac_worker
