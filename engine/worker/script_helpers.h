// The helpers of PAC scripts as functions of the global object: the thin layer between the engine's
// values and pac_functions.h, shell_expression.h and helpers.js.
//
// Plain texts are answered here. Arguments of another kind go to helpers.js, where each conversion
// is the language's own.
#pragma once

#include "engine/worker/engine_runtime.h"

namespace pac_worker {

/// Defines all helpers in the runtime's context, and stops its clock if the environment's is.
/// @return false if the heap limit is too low for them
bool defineHelpers(EngineRuntime& runtime);

}  // namespace pac_worker
