// The JavaScript engine with one PAC script in it.
//
// This header hides the engine's own types. A ScriptEngine has one runtime and one fresh context.
// The script runs once, when it is loaded, and its globals remain between evaluations. There is one
// exception: if a script has passed the heap limit and still uses more than half of the heap, the
// next evaluation first loads the script again. The load is part of that evaluation's time limit.
// Two threads must not use an engine at the same time, but each call may come from a different
// thread. No function throws.
//
// Promises: after the load and after each evaluation, up to 1,000 queued jobs run, within the same
// time limit. The answer does not depend on these jobs. If a script passes a limit and catches the
// error, it still has no answer.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engine/wire/reply.h"
#include "engine/worker/pac_environment.h"

namespace pac_worker {

struct ScriptLimits {
  std::size_t heapBytes = 64U << 20U;  ///< JavaScript heap; a script that passes it has no answer
  std::size_t stackBytes =
      512U << 10U;  ///< native stack; a script that passes it gets an error, which it may catch
  std::chrono::milliseconds time{5000};  ///< limit for a load or an evaluation; the worker sets the
                                         ///< value from its Start message
  std::size_t resultBytes = 64U << 10U;  ///< longest result text; a longer result is no answer
  std::size_t alertBytes = 2U << 10U;    ///< logged alert text of one evaluation; the rest is cut
};

using pac_engine::Problem;
using pac_engine::Reply;

class EngineRuntime;

/// A program implements this class to prepare a script's context before the script runs.
class Preparation {
 public:
  Preparation() = default;
  Preparation(const Preparation&) = delete;
  Preparation& operator=(const Preparation&) = delete;
  virtual ~Preparation() = default;

  /// The context has the helpers already. @return false if the heap limit is too low
  virtual bool prepare(EngineRuntime& runtime) = 0;
};

class ScriptEngine {
 public:
  /// @param environment outlives the engine
  /// @param preparation called at each load, if not null; outlives the engine
  explicit ScriptEngine(PacEnvironment& environment, const ScriptLimits& limits = {},
                        Preparation* preparation = nullptr);
  ~ScriptEngine();
  ScriptEngine(const ScriptEngine&) = delete;
  ScriptEngine& operator=(const ScriptEngine&) = delete;

  /// Loads `bytes` and runs the script once. `bytes` are UTF-8 with or without BOM, else
  /// ISO-8859-1; a NUL ends them. Call it only once.
  /// @return nothing if the script is loaded and has an entry point, else the reason why it is
  ///         refused
  std::optional<Problem> load(std::string_view bytes);

  /// Calls FindProxyForURL(url, host) of the loaded script.
  Reply evaluate(std::string_view url, std::string_view host);

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace pac_worker
