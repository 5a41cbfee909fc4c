#include "client/ctl/commands/pac_bench_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client/ctl/commands/chosen_script.h"
#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/commands/simulated_environment.h"
#include "client/ctl/commands/url_arguments.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/progress.h"
#include "client/ctl/terminal/script_file.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/ctl/terminal/url_parts.h"
#include "domain/url_host.h"
#include "pac/pac_parser.h"
#include "pac/proxy_url_cache.h"
#include "service/records/owned_settings.h"
#include "service/records/proxy_config_owner.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;
using Micros = std::chrono::duration<double, std::micro>;

constexpr const char* kPacBenchFooter = R"(Output:
  evaluations  their number, the number of hosts, and how many got no answer
  load         time until the script was loaded
  median       time of one evaluation, with the way to the worker and back
  worst        time of the longest evaluation, and its URL
  helpers      how many helpers an evaluation calls on average, and which part
               of the time they take; a separate run of all evaluations
               measures both
  cache        how many questions the daemon would answer from its cache of 50
               hosts, and which part of the time this saves
  stale        cache hits for which the script itself has another answer,
               because it decides by path, scheme or time; the first such URL
  The URLs are asked in order, each --repeat times. For the cache only the first
  time counts. The file of -f may be an access log.
  With --json an object: file, urls, hosts, evaluations, unanswered, load_us,
  median_us, worst_us, worst_url, helpers (calls and us of the separate run,
  run_us, share), cache (hits, share, saved_us, saved_share, stale, stale_url).
  Times are in microseconds.

Exit status:
)";

constexpr int kMostRounds = 1000;

struct BenchArguments {
  ChosenScript script;
  UrlArguments asked;
  SimulatedEnvironment environment;
  int rounds = 1;
  bool json = false;
};

void freeTexts(ProxyUrlSettings& settings, void* /*context*/) {
  for (const auto& setting : settings) std::free(setting.url);
  settings.clear();
}

/// Uses the daemon's own cache in the same way as the daemon.
class CacheOnTrial {
 public:
  enum class Finding { kMiss, kHit, kStale };

  /// Looks up the host of `shown` in the cache, as the daemon does. After a miss, stores `shown`,
  /// which is the script's current answer.
  Finding ask(const ShownAnswer& shown) {
    ProxyUrlSettings kept;
    OwnedSettings fresh(PacParser::proxys2ProxySettings(shown.result.value_or("")));
    if (mCache.get(shown.host, kept)) {
      return isSame(kept, fresh.get()) ? Finding::kHit : Finding::kStale;
    }
    // The daemon does not cache a missing answer.
    if (shown.result) mCache.set(shown.host, fresh.release());
    return Finding::kMiss;
  }

 private:
  static bool isSame(const ProxyUrlSettings& a, const ProxyUrlSettings& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
      return x.type == y.type && std::string_view(x.url) == y.url;
    });
  }

  ProxyUrlCache mCache{PacParser::kCacheCapacity, freeTexts, nullptr};
};

struct Measured {
  Micros load{0};
  std::vector<Micros> times;
  Micros worst{0};
  std::string worstUrl;
  std::set<std::string> hosts;
  std::size_t unanswered = 0;
  Micros firstRound{0};
  Micros saved{0};
  std::size_t hits = 0;  ///< includes the stale hits
  std::size_t stale = 0;
  std::string staleUrl;
  std::uint64_t helperCalls = 0;
  Micros helperTime{0};
  Micros helperRun{0};  ///< the time of the evaluations in which the helpers were counted
};

void countFirst(Measured& measured, CacheOnTrial& cache, const ShownAnswer& shown, Micros took) {
  measured.hosts.insert(shown.host);
  measured.firstRound += took;
  if (!shown.result) ++measured.unanswered;
  const auto finding = cache.ask(shown);
  if (finding == CacheOnTrial::Finding::kMiss) return;
  ++measured.hits;
  measured.saved += took;
  if (finding == CacheOnTrial::Finding::kStale && measured.stale++ == 0) {
    measured.staleUrl = withoutPassword(shown.url);
  }
}

Measured measure(pac_engine::Engine& engine, const BenchArguments& arguments, Progress& progress) {
  Measured measured;
  CacheOnTrial cache;
  for (int round = 0; round < arguments.rounds; ++round) {
    for (const auto& url : arguments.asked.urls) {
      const auto begun = Clock::now();
      const auto shown = evaluateUrl(engine, url, std::nullopt);
      const Micros took = Clock::now() - begun;
      measured.times.push_back(took);
      if (took > measured.worst) {
        measured.worst = took;
        measured.worstUrl = withoutPassword(url);
      }
      if (round == 0) countFirst(measured, cache, shown, took);
      progress.step();
    }
  }
  return measured;
}

/// Asks the script all questions again, in a worker that counts the helper calls. The share of the
/// helpers is computed from this run only, because the other worker may be slower or faster.
void measureHelpers(Measured& measured, const std::string& script, const BenchArguments& arguments,
                    pac_engine::Options options, Progress& progress) {
  options.role = pac_engine::WorkerRole::kTraces;
  pac_engine::Problem problem;
  const auto tracer = loadScript(script, std::move(options), problem);
  if (!tracer) throw refusal(arguments.script.file, problem);
  // This report contains the counts of the load, so the next report contains only counts of the
  // evaluations.
  if (!tracer->command("trace", "", problem)) throw refusal(arguments.script.file, problem);
  for (int round = 0; round < arguments.rounds; ++round) {
    for (const auto& url : arguments.asked.urls) {
      progress.step();
      const auto asked = canonicalOrGiven(url);
      const HeapText host(getHost(asked));
      if (host == nullptr) continue;
      const auto begun = Clock::now();
      tracer->evaluate(asked, host.get());
      measured.helperRun += Clock::now() - begun;
    }
  }
  const auto text = tracer->command("trace", "", problem);
  if (!text) throw refusal(arguments.script.file, problem);
  const auto helpers = Json::parse(*text).at("helpers");
  measured.helperCalls = helpers.at(0).get<std::uint64_t>();
  measured.helperTime = std::chrono::nanoseconds(helpers.at(1).get<std::int64_t>());
}

Micros median(std::vector<Micros> times) {
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  return *middle;
}

std::string oneDigit(double value) {
  const auto text = std::to_string(value);
  return text.substr(0, text.find('.') + 2);
}

std::string shownMicros(Micros time) {
  if (time.count() < 1000) return oneDigit(time.count()) + " us";
  if (time.count() < 1e6) return oneDigit(time.count() / 1e3) + " ms";
  return oneDigit(time.count() / 1e6) + " s";
}

std::string percent(double share) {
  return std::to_string(static_cast<int>(share * 100 + 0.5)) + " %";
}

double hitShare(const Measured& measured, std::size_t urls) {
  return static_cast<double>(measured.hits) / static_cast<double>(urls);
}

double callsPerUrl(const Measured& measured) {
  return static_cast<double>(measured.helperCalls) / static_cast<double>(measured.times.size());
}

double savedShare(const Measured& measured) {
  return measured.firstRound.count() > 0 ? measured.saved / measured.firstRound : 0;
}

double helperShare(const Measured& measured) {
  return measured.helperRun.count() > 0 ? measured.helperTime / measured.helperRun : 0;
}

void print(const BenchArguments& arguments, const Measured& measured) {
  const auto urls = arguments.asked.urls.size();
  std::vector<Row> rows{
      {"evaluations", std::to_string(measured.times.size()) + " of " + std::to_string(urls) +
                          " URLs on " + std::to_string(measured.hosts.size()) + " hosts, " +
                          std::to_string(measured.unanswered) + " URLs without an answer"},
      {"load", shownMicros(measured.load)},
      {"median", shownMicros(median(measured.times))},
      {"worst", shownMicros(measured.worst) + "  " + measured.worstUrl},
      {"helpers", oneDigit(callsPerUrl(measured)) + " calls a URL, " +
                      percent(helperShare(measured)) + " of the time"},
      {"cache", std::to_string(measured.hits) + " hits (" + percent(hitShare(measured, urls)) +
                    "), which save " + percent(savedShare(measured)) + " of the time"},
      {"stale", measured.stale == 0
                    ? "none"
                    : std::to_string(measured.stale) + " hits, first " + measured.staleUrl}};
  printBlock(shownName(arguments.script.file), rows);
}

void printAsJson(const BenchArguments& arguments, const Measured& measured) {
  Json object;
  object["file"] = arguments.script.file;
  object["urls"] = arguments.asked.urls.size();
  object["hosts"] = measured.hosts.size();
  object["evaluations"] = measured.times.size();
  object["unanswered"] = measured.unanswered;
  object["load_us"] = measured.load.count();
  object["median_us"] = median(measured.times).count();
  object["worst_us"] = measured.worst.count();
  object["worst_url"] = measured.worstUrl;
  object["helpers"] = Json{{"calls", measured.helperCalls},
                           {"us", measured.helperTime.count()},
                           {"run_us", measured.helperRun.count()},
                           {"share", helperShare(measured)}};
  object["cache"] = Json{{"hits", measured.hits},
                         {"share", hitShare(measured, arguments.asked.urls.size())},
                         {"saved_us", measured.saved.count()},
                         {"saved_share", savedShare(measured)},
                         {"stale", measured.stale},
                         {"stale_url", measured.stale == 0 ? Json() : Json(measured.staleUrl)}};
  printJson(object);
}

ExitStatus benchScript(const BenchArguments& arguments, const pac_engine::Options& options) {
  const auto script = readChosenScript(arguments.script);
  pac_engine::Problem refused;
  const auto begun = Clock::now();
  const auto engine = loadScript(script, options, refused);
  if (!engine) throw refusal(arguments.script.file, refused);
  const Micros load = Clock::now() - begun;
  // Each round is done twice: first to measure the time, then to count the calls of helpers.
  Progress progress(2 * static_cast<std::size_t>(arguments.rounds) * arguments.asked.urls.size());
  auto measured = measure(*engine, arguments, progress);
  measureHelpers(measured, script, arguments, options, progress);
  measured.load = load;
  progress.end();
  arguments.json ? printAsJson(arguments, measured) : print(arguments, measured);
  return measured.unanswered == 0 ? kAnswered : kNoAnswer;
}

}  // namespace

void addPacBench(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("bench", "Measures what a PAC script costs.");
  const auto arguments = std::make_shared<BenchArguments>();
  addScriptFile(*command, arguments->script);
  addUrlsOrLog(*command, arguments->asked);
  addUrlOption(*command, arguments->asked);
  command->add_option("--repeat", arguments->rounds, "How often each URL is asked; 1 to 1000")
      ->check(CLI::Range(1, kMostRounds))
      ->option_text("COUNT");
  addEnvironmentOptions(*command, arguments->environment);
  command->add_flag("--json", arguments->json, "Print JSON instead of text for people");
  command->footer(std::string(kPacBenchFooter) +
                  statusHelp({{kAnswered, "all URLs got an answer"},
                              {kNoAnswer, "at least one URL got no answer"}},
                             kScriptStatuses));
  command->callback([arguments, command, &action] {
    const auto leading = settleScript(arguments->script);
    checkStandardInput(arguments->script, arguments->asked.file.value_or(""));
    addFurtherUrls(*command, arguments->asked, leading);
    requireUrls(arguments->asked);
    action = [arguments, options = engineOptions(arguments->environment)] {
      return benchScript(*arguments, options);
    };
  });
}

}  // namespace client
