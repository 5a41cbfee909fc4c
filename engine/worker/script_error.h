// The text of an exception that a script has thrown.
#pragma once

#include <string_view>

#include "engine/worker/engine_runtime.h"

namespace pac_worker {

/// The name that the script has in the engine's stack traces.
inline constexpr char kScriptName[] = "script.pac";

/// Longest text of an error.
inline constexpr std::size_t kErrorBytes = 512;

/// Takes the pending exception and describes it without running any code of the script: only data
/// properties of real Error objects and primitive values are read.
Problem takeException(JSContext* context);

/// An error from our own code. The text is cut and made printable.
Problem errorOf(std::string_view message);

}  // namespace pac_worker
