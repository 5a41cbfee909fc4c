// A PAC script that runs twice for each URL: instrumented, to record its steps, and unchanged. So
// the command detects when the instrumentation has changed the answer, and does not explain the
// changed answer as the script's own.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/ctl/commands/answer_json.h"
#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/commands/script_workbench.h"
#include "client/ctl/commands/workbench_report.h"
#include "engine/pac_engine.h"

namespace client {

struct TracedAnswer {
  ShownAnswer answer;  ///< the answer of the unchanged script
  /// The answer of the instrumented script, or the reason why it has none, if it differs.
  std::optional<std::string> different;
  Trace trace;
  std::chrono::microseconds took{0};     ///< time of the evaluation of the unchanged script
  std::optional<std::size_t> decidedBy;  ///< the return that chose the answer, if it is known
};

/// What a trace contains. If the traces contain everything, a large script takes minutes for
/// hundreds of URLs.
enum class TraceDetail {
  kReturns,  ///< the values of returns as events, and no counts
  kCounts,   ///< the values of returns as events, and all counts
  kEverything
};

struct TraceOptions {
  TraceDetail detail = TraceDetail::kEverything;
  /// True if the URLs are made from the script, and do not come from the user. In this case, no
  /// name is looked up, and no alert is shown.
  bool forMadeUrls = false;
};

class TracedScript {
 public:
  /// Throws Failure (kRefused) if the engine or the workbench's parser refuses the script.
  TracedScript(std::string_view script, const std::string& file, const pac_engine::Options& options,
               TraceOptions tracing = {});

  /// The same script for URLs that are made from the script, and do not come from the user.
  TracedScript forMadeUrls() const;

  /// Asks the unchanged and the instrumented script. If the worker of the instrumented script has
  /// ended, it is started again. The trace is then empty and marked as cut.
  TracedAnswer ask(const std::string& url, const std::optional<std::string>& host);

  const InstrumentedScript& script() const { return mScript; }
  /// The trace of the load of the script.
  const Trace& load() const { return mLoad; }

 private:
  class RefusedNames;

  TracedScript(const TracedScript& other, TraceOptions tracing);
  void loadPlain();
  void startTracing();
  Trace takeTrace();
  std::optional<std::size_t> decidingReturn(const Trace& trace, const ShownAnswer& answer) const;

  std::string mSource;
  std::string mFile;
  pac_engine::Options mOptions;
  TraceOptions mTracing;
  Alerts mAlerts;
  std::unique_ptr<pac_engine::Engine> mPlain;
  InstrumentedScript mScript;
  std::shared_ptr<RefusedNames> mRefusedNames;  ///< null if the trace contains no lookups
  std::unique_ptr<pac_engine::Engine> mTraced;
  Trace mLoad;
};

}  // namespace client
