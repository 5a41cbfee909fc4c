// Measures the cost of the separate process for a script: the same question goes once through the
// library, and once directly to the same engine in this process. The benchmark also measures the
// time of loading and the memory of the worker.
//
// "OneCpu" binds this process, and with it the worker, to one CPU. With "AnyCpu", the scheduler
// chooses the CPUs. The counter private_KB is the memory that the worker does not share with other
// processes.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "bench/scripts.h"
#include "bench/simulated_environment.h"
#include "engine/pac.h"
#include "engine/pac_engine.h"
#include "engine/worker/script_engine.h"

namespace {

constexpr char kUrl[] = "http://www.host.test/index.html";
constexpr char kHost[] = "www.host.test";
constexpr int kRules = 60;
constexpr std::size_t kLargeBytes = 500'000;

using bench::rulesScript;
using bench::scriptOf;
using bench::trivialScript;

/// Binds this thread to its current CPU during the lifetime of this object.
class OneCpu {
 public:
  OneCpu() {
    sched_getaffinity(0, sizeof mBefore, &mBefore);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);
  }
  ~OneCpu() { sched_setaffinity(0, sizeof mBefore, &mBefore); }
  OneCpu(const OneCpu&) = delete;
  OneCpu& operator=(const OneCpu&) = delete;

 private:
  cpu_set_t mBefore{};
};

void inProcess(benchmark::State& state, const std::string& script) {
  const OneCpu bound;
  bench::SimulatedEnvironment world;
  pac_worker::ScriptEngine engine(world);
  if (engine.load(script)) return state.SkipWithError("refused");
  for (auto _ : state) benchmark::DoNotOptimize(engine.evaluate(kUrl, kHost).result);
}

void ask(benchmark::State& state, const std::string& script) {
  pac* const engine = pac_init(script.c_str(), PAC_OPTION_OFFLINE, nullptr, nullptr);
  if (engine == nullptr) return state.SkipWithError("refused");
  for (auto _ : state) {
    char* result = nullptr;
    pac_find_proxy_sync_n(engine, kUrl, kHost, &result);
    if (result == nullptr) {
      state.SkipWithError("no answer");
      break;
    }
    std::free(result);
  }
  pac_free(engine);
}

void throughLibraryOneCpu(benchmark::State& state, const std::string& script) {
  const OneCpu bound;
  ask(state, script);
}

void throughLibraryAnyCpu(benchmark::State& state, const std::string& script) {
  ask(state, script);
}

double privateKilobytes(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  double sum = 0;
  for (std::string word; file >> word;) {
    if (word != "Private_Clean:" && word != "Private_Dirty:") continue;
    double kilobytes = 0;
    file >> kilobytes;
    sum += kilobytes;
  }
  return sum;
}

void load(benchmark::State& state, const std::string& script) {
  pac_engine::Options options;
  pac_engine::Problem refused;
  for (auto _ : state) {
    const auto engine = pac_engine::Engine::load(script, options, refused);
    if (!engine) return state.SkipWithError(refused.message.c_str());
    state.PauseTiming();
    state.counters["private_KB"] = privateKilobytes(engine->workerPid());
    state.ResumeTiming();
  }
}

constexpr int kListed = 10'000;
constexpr int kHashed = 20'000;

// The two measurements of a script run directly after each other, so that they are comparable.
#define PROXYMANAGER_EVALUATION(name, script)                \
  BENCHMARK_CAPTURE(inProcess, name, script)->UseRealTime(); \
  BENCHMARK_CAPTURE(throughLibraryOneCpu, name, script)->UseRealTime()

PROXYMANAGER_EVALUATION(trivial, trivialScript());
PROXYMANAGER_EVALUATION(sixtyRules, rulesScript(kRules));
PROXYMANAGER_EVALUATION(modern, bench::modernScript());
PROXYMANAGER_EVALUATION(hash20000, bench::hashScript(kHashed));
PROXYMANAGER_EVALUATION(linearList10000, bench::linearListScript(kListed));
BENCHMARK_CAPTURE(throughLibraryAnyCpu, trivial, trivialScript())->UseRealTime();
BENCHMARK_CAPTURE(throughLibraryAnyCpu, sixtyRules, rulesScript(kRules))->UseRealTime();
BENCHMARK_CAPTURE(load, sixtyRules, rulesScript(kRules))
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(load, large, scriptOf(kLargeBytes))->UseRealTime()->Unit(benchmark::kMillisecond);

/// Searches a list with the given number of rules from its beginning to its end. The search runs in
/// this process, because the complexity is calculated from the CPU time of this process. The CPU
/// time of a worker is not part of that time.
void searchList(benchmark::State& state) {
  inProcess(state, bench::linearListScript(static_cast<int>(state.range(0))));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(searchList)
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(5000)
    ->Arg(10000)
    ->Arg(20000)
    ->Complexity();

}  // namespace
