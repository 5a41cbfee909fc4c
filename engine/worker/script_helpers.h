// The helpers of PAC scripts as functions of the global object: the thin layer between the engine's
// values and pac_functions.h, shell_expression.h and helpers.js.
//
// These functions handle calls whose arguments are plain texts. All other calls go to helpers.js,
// in which the JavaScript language itself does each conversion.
#pragma once

#include "engine/worker/engine_runtime.h"

namespace pac_worker {

/// Defines all helpers in the runtime's context. If the environment has a fixed time, scripts see
/// that time.
/// @return false if the heap limit is too low for them
bool defineHelpers(EngineRuntime& runtime);

}  // namespace pac_worker
