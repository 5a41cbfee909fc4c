// The helpers of PAC scripts as functions of the global object: the thin layer between the engine's
// values and pac_functions.h, pac_dates.h and shell_expression.h.
//
// Where a helper wants a text, null, undefined and a missing argument throw a TypeError and any
// other value is converted as String() does, unless the helper says otherwise.
#pragma once

#include "engine/worker/engine_runtime.h"

namespace pac_worker {

/// Defines all helpers in the runtime's context.
/// @return false where the heap limit is too low for them
bool defineHelpers(EngineRuntime& runtime);

}  // namespace pac_worker
