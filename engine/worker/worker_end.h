// How the worker ends: at once, with nothing tidied up. A function in a file of its own, so that
// the conversation can be held in a process that does not end with it.
#pragma once

namespace pac_worker {

inline constexpr int kExitBroken =
    3;  ///< exit code: the library broke the rules of the conversation

[[noreturn]] void endWorker(int code);

}  // namespace pac_worker
