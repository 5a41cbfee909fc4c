// The descriptors with which the script worker is started.
#pragma once

namespace pac_engine {

inline constexpr int kWorkerSocket = 3;  ///< the worker's end of the socket pair
inline constexpr int kWorkerScript = 4;  ///< the script, a sealed memory file

}  // namespace pac_engine
