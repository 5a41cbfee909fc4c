// How the worker ends: at once, without any clean-up. The function has its own file, so that a test
// can replace it: the test runs the conversation in its own process, which must not end.
#pragma once

namespace pac_worker {

inline constexpr int kExitBroken =
    3;  ///< exit code: the library broke the rules of the conversation

[[noreturn]] void endWorker(int code);

}  // namespace pac_worker
