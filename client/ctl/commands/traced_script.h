// A PAC script that is run twice for each URL: instrumented, for what it does on its way, and as it
// is, so that an answer that instrumenting has changed is never explained as if it were the
// script's.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/ctl/commands/answer_json.h"
#include "client/ctl/commands/script_workbench.h"
#include "client/ctl/commands/workbench_report.h"
#include "engine/pac_engine.h"

namespace client {

struct TracedAnswer {
  ShownAnswer answer;                    ///< of the script as it is
  std::optional<std::string> different;  ///< what the instrumented script answered, if not the same
  Trace trace;
  std::chrono::microseconds took{0};     ///< the evaluation of the script as it is
  std::optional<std::size_t> decidedBy;  ///< the return that gave the answer
};

class TracedScript {
 public:
  /// Throws Failure (kRefused) if the engine refuses the script, or its parser does not take it.
  TracedScript(std::string_view script, const std::string& file,
               const pac_engine::Options& options);

  /// Asks both. A tracing worker that ended is started again; the trace is then empty and cut.
  TracedAnswer ask(const std::string& url, const std::optional<std::string>& host);

  const InstrumentedScript& script() const { return mScript; }
  /// What was noted while the script was loaded.
  const Trace& load() const { return mLoad; }

 private:
  void startTracing();
  Trace takeTrace();
  std::optional<std::size_t> decidingReturn(const Trace& trace, const ShownAnswer& answer) const;

  std::string mFile;
  pac_engine::Options mOptions;  ///< of the worker that traces
  std::unique_ptr<pac_engine::Engine> mPlain;
  InstrumentedScript mScript;
  std::unique_ptr<pac_engine::Engine> mTraced;
  Trace mLoad;
};

}  // namespace client
