// The workbench in the role of a tracer. It runs an instrumented script. It records what the script
// reports, and each call of a helper.
//
// An instrumented script calls one function, the hook:
// - hook(N) before statement N;
// - hook(N, value) around expression N; the hook returns the value unchanged;
// - hook(N, value, 1) around expression N if it is the value of a return;
// - hook(N, 0, 0, K) when case N is entered; expression K is the test of this case.
// The comment at the start of the script names the hook. The hook is a constant in the script's
// global scope. It is not a property of the global object, so a script that lists its globals does
// not see it. Helpers keep their names and lengths, so a script sees no difference.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "engine/worker/conversation.h"

namespace pac_worker {

/// Size limit of the events in one report, in bytes. Further events are only counted. An endless
/// loop reaches this limit within a second.
inline constexpr std::size_t kMaxEventBytes = 8U << 20U;
/// Longest text that is recorded as a value, in bytes.
inline constexpr std::size_t kMaxValueBytes = 1024;
/// Maximum number of places of a script. A script of 512,000 bytes has far fewer.
inline constexpr std::uint32_t kMaxPlaces = 1U << 20U;

class Tracer : public Extension, private PacEnvironment {
 public:
  /// @param script the instrumented script; the tracer reads only its first comment
  explicit Tracer(std::string_view script);

  bool prepare(EngineRuntime& runtime) override;
  PacEnvironment& around(PacEnvironment& device) override;
  /// The command "trace" returns JSON: what was recorded since the last report. "helpers" is the
  /// number of helper calls, and the nanoseconds that the script waited for them. "counts" is one
  /// list with four numbers for each place that was reached: the place, and how often it was
  /// reached, true and false. The argument selects what is recorded from now on:
  /// - "returns": the values of returns as events, and no counts of places
  /// - "counts": the values of returns as events, and the counts
  /// - any other argument: all events, and the counts. In a script of 500 KB, an evaluation with
  /// all events takes ten times as long.
  Reply report(std::string_view command, std::string_view argument) override;

  /// The functions of the tracer that the engine calls.
  struct Hooks;

 private:
  struct Counts {
    std::uint64_t reached = 0;
    std::uint64_t truthy = 0;
    std::uint64_t falsy = 0;
  };
  /// A call of a helper that has not returned.
  struct OpenCall {
    std::string lookups;  ///< JSON
  };

  std::vector<std::string> resolve(std::string_view name, AddressFamily family) override;
  std::vector<std::string> ownAddresses(AddressFamily family) override;
  std::optional<std::int64_t> stoppedClock() override { return mDevice->stoppedClock(); }
  void alert(std::string_view text) override { mDevice->alert(text); }

  /// @return null if the place is not counted
  Counts* countsOf(std::uint32_t place);
  /// What is recorded. Calls of helpers are always counted.
  enum class Detail { kNothing, kReturns, kCounts, kEverything };

  bool records(Detail least) const { return !mCut && mDetail >= least; }
  void noteEvent(const std::string& json);
  /// Notes that a case was entered. @param test the number of the case's test; -1 for `default`
  void noteEntry(std::uint32_t place, std::int32_t test);
  void noteLookup(std::string_view name, AddressFamily family,
                  const std::vector<std::string>& addresses, std::int64_t microseconds);
  void noteHelper(std::chrono::nanoseconds took);
  void forget();

  const std::string mHook;  ///< the hook's name
  PacEnvironment* mDevice = nullptr;
  std::vector<Counts> mCounts;  ///< one for each place, up to the highest number that was reached
  std::string mEvents;          ///< JSON, a comma after each event
  std::uint64_t mHelperCalls = 0;  ///< only calls by the script, not by other helpers
  std::chrono::nanoseconds mHelperTime{0};
  Detail mDetail;
  bool mSkipped = false;  ///< an event since the last return is not recorded
  bool mCut = false;
  bool mOwnText = false;  ///< the script has read the text of a function
  std::vector<OpenCall> mOpenCalls;
  std::unordered_set<std::string> mAsked;  ///< the names that were looked up in this evaluation
};

}  // namespace pac_worker
