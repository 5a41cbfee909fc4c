// The descriptors and the variables with which the script worker is started.
#pragma once

namespace pac_engine {

inline constexpr int kWorkerSocket = 3;  ///< the worker's end of the socket pair
inline constexpr int kWorkerScript = 4;  ///< the script, a sealed memory file

/// The environment of a workbench contains this variable if the workbench only parses its script.
inline constexpr char kParseOnly[] = "PROXYMANAGER_WORKBENCH=parse";
inline constexpr char kWorkbenchVariable[] = "PROXYMANAGER_WORKBENCH";

/// If the environment of a worker contains this variable, the kernel kills the worker when the
/// thread that started it ends.
inline constexpr char kEndsWithCaller[] = "PROXYMANAGER_WORKER_END=with-caller";
inline constexpr char kEndVariable[] = "PROXYMANAGER_WORKER_END";

}  // namespace pac_engine
