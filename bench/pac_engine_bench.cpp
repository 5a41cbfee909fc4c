// What the wall between library and script costs: the same question asked through the library and
// of the same engine in this process, loading, and the worker's own memory.
//
// "OneCpu" binds this process, and with it the worker, to one CPU; "AnyCpu" leaves both to the
// scheduler. The counter private_KB is what the worker has for itself alone.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "platform/pac_engine/pac.h"
#include "platform/pac_engine/pac_engine.h"
#include "platform/pac_engine/worker/script_engine.h"

namespace {

constexpr char kUrl[] = "http://www.host.test/index.html";
constexpr char kHost[] = "www.host.test";
constexpr int kRules = 60;
constexpr std::size_t kLargeBytes = 500'000;

std::string numbered(const std::string& before, int number, const std::string& after) {
  std::string text = before;
  text += std::to_string(number);
  return text += after;
}

const std::string kHead = "function FindProxyForURL(url, host) {\n";
const std::string kTail = "  return 'PROXY proxy.test:8080; DIRECT';\n}\n";

std::string rule(int number) {
  if (number % 2 == 0) {
    return numbered("  if (dnsDomainIs(host, '.site", number,
                    ".test')) return 'PROXY one.test:8080; DIRECT';\n");
  }
  return numbered("  if (shExpMatch(host, '*.part", number,
                  ".test')) return 'SOCKS two.test:1080';\n");
}

std::string trivialScript() {
  return kHead + kTail;
}

std::string sixtyRules() {
  std::string script = kHead;
  for (int i = 0; i < kRules; ++i) script += rule(i);
  return script + kTail;
}

std::string largeScript() {
  std::string script = kHead;
  for (int i = 0; script.size() < kLargeBytes; ++i) script += rule(i);
  return script + kTail;
}

/// Binds this thread to the CPU it is on for as long as it lives.
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

class NoWorld : public pac_worker::PacEnvironment {
 public:
  std::vector<std::string> resolve(std::string_view, pac_worker::AddressFamily) override {
    return {};
  }
  std::vector<std::string> ownAddresses(pac_worker::AddressFamily) override { return {}; }
  std::int64_t now() override { return 0; }
  std::tm brokenDown(std::int64_t, bool) override { return {}; }
  void alert(std::string_view) override {}
};

void inProcess(benchmark::State& state, const std::string& script) {
  const OneCpu bound;
  NoWorld world;
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

BENCHMARK_CAPTURE(inProcess, trivial, trivialScript())->UseRealTime();
BENCHMARK_CAPTURE(throughLibraryOneCpu, trivial, trivialScript())->UseRealTime();
BENCHMARK_CAPTURE(throughLibraryAnyCpu, trivial, trivialScript())->UseRealTime();
BENCHMARK_CAPTURE(inProcess, sixtyRules, sixtyRules())->UseRealTime();
BENCHMARK_CAPTURE(throughLibraryOneCpu, sixtyRules, sixtyRules())->UseRealTime();
BENCHMARK_CAPTURE(throughLibraryAnyCpu, sixtyRules, sixtyRules())->UseRealTime();
BENCHMARK_CAPTURE(load, sixtyRules, sixtyRules())->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(load, large, largeScript())->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
