// Measures the parts of an answer in the daemon's own process, without log lines: the cache's
// answer, the parsing of a script's result, and public suffixes (compared with libpsl). Each part
// is measured over its usual range of sizes, and its complexity is calculated from these
// measurements.
#include <benchmark/benchmark.h>
#include <libpsl.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/log_line.h"
#include "domain/tld.h"
#include "pac/pac_parser.h"
#include "service/records/proxy_config.h"

namespace {

constexpr const char* kEntry = "PROXY proxy.example.org:8080";

std::string resultOf(std::int64_t entries) {
  std::string result;
  for (std::int64_t i = 0; i < entries; ++i) result += std::string(i == 0 ? "" : "; ") + kEntry;
  return result;
}

std::string hostOf(std::int64_t number) {
  return "www" + std::to_string(number) + ".example.org";
}

/// Stores answers for this number of hosts in the parser, by calls of the function that receives a
/// script's result.
void remember(PacParser& parser, std::int64_t hosts) {
  for (std::int64_t i = 0; i < hosts; ++i) {
    auto host = hostOf(i);
    PacParser::proxyFound(strdup(resultOf(2).c_str()), &parser, host.data());
  }
}

/// Asks for the remembered hosts (1 to 50), one after the other.
void cachedGetProxy(benchmark::State& state) {
  setlogmask(LOG_MASK(LOG_EMERG));
  PacParser parser(nullptr, false);
  remember(parser, state.range(0));
  std::vector<std::string> urls;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    urls.push_back("http://" + hostOf(i) + "/index.html");
  }
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(parser.getProxy(urls[next]));
    next = next + 1 == urls.size() ? 0 : next + 1;
  }
  state.SetComplexityN(state.range(0));
}

void parseResult(benchmark::State& state) {
  setlogmask(LOG_MASK(LOG_EMERG));
  const auto result = resultOf(state.range(0));
  for (auto _ : state) {
    auto settings = PacParser::proxys2ProxySettings(result);
    benchmark::DoNotOptimize(settings);
    for (auto& setting : settings) cleanupProxySetting(&setting);
  }
  state.SetComplexityN(state.range(0));
}

/// The kinds of names that a device sees: names below country codes or long suffixes, names of one
/// label, and names whose suffix is not in the list.
const std::vector<std::string>& names() {
  static const std::vector<std::string> drawn = [] {
    constexpr const char* kSuffixes[] = {"com",   "org",      "co.uk",  "de",
                                         "co.jp", "com.au",   "gov.br", "k12.ca.us",
                                         "local", "internal", "museum"};
    std::vector<std::string> made;
    for (int i = 0; made.size() < 4000; ++i) {
      for (const char* suffix : kSuffixes) {
        made.push_back("host" + std::to_string(i) + (i % 3 == 0 ? ".dept." : ".") + "site" +
                       std::to_string(i % 97) + "." + suffix);
      }
    }
    return made;
  }();
  return drawn;
}

void publicSuffix(benchmark::State& state) {
  setlogmask(LOG_MASK(LOG_EMERG));
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(topLevelDomain(names()[next]));
    next = next + 1 == names().size() ? 0 : next + 1;
  }
}

void publicSuffixOfLibpsl(benchmark::State& state) {
  const psl_ctx_t* const list = psl_builtin();
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(psl_unregistrable_domain(list, names()[next].c_str()));
    next = next + 1 == names().size() ? 0 : next + 1;
  }
}

BENCHMARK(cachedGetProxy)->Arg(1)->Arg(2)->Arg(5)->Arg(10)->Arg(20)->Arg(50)->Complexity();
BENCHMARK(parseResult)->Arg(1)->Arg(6)->Arg(10)->Arg(20)->Arg(50)->Arg(100)->Complexity();
BENCHMARK(publicSuffix);
BENCHMARK(publicSuffixOfLibpsl);

}  // namespace
