// The workbench that runs a script: records what the instrumented script reports, and each call of
// a helper.
//
// Instrumented scripts call one function, the hook: hook(N) before statement N, hook(N, value)
// around the expression N, which stays that value. The hook is a constant of the script's global
// scope under the name that stands in the comment at the script's beginning; it is no property of
// the global object, so a script that lists its globals does not see it. Helpers stay what they
// were to a script, of the same names and lengths.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "engine/worker/conversation.h"

namespace pac_worker {

/// What one report has of events, in bytes; further ones are only counted. A loop without an end
/// fills that in a second.
inline constexpr std::size_t kMaxEventBytes = 8U << 20U;
/// Of a text that is noted as a value, in bytes.
inline constexpr std::size_t kMaxValueBytes = 1024;
/// Places that a script may have, far more than one of 512,000 bytes has.
inline constexpr std::uint32_t kMaxPlaces = 1U << 20U;

class Tracer : public Extension, private PacEnvironment {
 public:
  /// @param script the instrumented script; read for its first comment
  explicit Tracer(std::string_view script);

  bool prepare(EngineRuntime& runtime) override;
  PacEnvironment& around(PacEnvironment& device) override;
  /// The command "trace": JSON of what was noted since the last one. "helpers": how many helpers
  /// the script called, and the nanoseconds that it waited for them.
  Reply report(std::string_view command, std::string_view argument) override;

  /// For the engine's functions of this tracer.
  struct Hooks;

 private:
  struct Counts {
    std::uint64_t reached = 0;
    std::uint64_t truthy = 0;
    std::uint64_t falsy = 0;
  };
  /// A helper that was called and has not returned.
  struct OpenCall {
    std::string lookups;  ///< JSON
  };

  std::vector<std::string> resolve(std::string_view name, AddressFamily family) override;
  std::vector<std::string> ownAddresses(AddressFamily family) override;
  std::optional<std::int64_t> stoppedClock() override { return mDevice->stoppedClock(); }
  void alert(std::string_view text) override { mDevice->alert(text); }

  Counts* countsOf(std::uint32_t place);
  void noteEvent(const std::string& json);
  void noteLookup(std::string_view name, AddressFamily family,
                  const std::vector<std::string>& addresses, std::int64_t microseconds);
  void noteHelper(std::chrono::nanoseconds took);
  void forget();

  const std::string mHook;  ///< the hook's name
  PacEnvironment* mDevice = nullptr;
  std::unordered_map<std::uint32_t, Counts> mCounts;
  std::string mEvents;             ///< JSON, each with a comma behind it
  std::uint64_t mHelperCalls = 0;  ///< those that a helper makes are not counted
  std::chrono::nanoseconds mHelperTime{0};
  bool mCut = false;
  bool mOwnText = false;  ///< the script has read the text of a function
  std::vector<OpenCall> mOpenCalls;
  std::unordered_set<std::string> mAsked;  ///< names of this evaluation
};

}  // namespace pac_worker
