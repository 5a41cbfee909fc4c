// Tests the workbench in the same way as proxymanagerctl uses it: a parser instruments a script,
// and a tracer runs the result.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "tests/unit/engine/worker/workbench/workbench_engines.h"

namespace {

using pac_engine::Engine;
using pac_engine::Problem;
using pac_engine::WorkerRole;
using workbench::answered;
using workbench::Json;

std::unique_ptr<Engine> load(const std::string& script, WorkerRole role) {
  Problem refused;
  auto engine = workbench::load(script, role, refused);
  EXPECT_NE(engine, nullptr) << pac_engine::describe(refused);
  return engine;
}

Json command(Engine& engine, const std::string& name, const Json& argument) {
  return workbench::command(engine, name,
                            argument.is_string() ? argument.get<std::string>() : argument.dump());
}

Json instrumented(const std::string& script) {
  const auto parser = load(script, WorkerRole::kParses);
  return command(*parser, "instrument", Json::object());
}

/// The events of one evaluation of `script`.
Json traced(const std::string& script, const std::string& url, const std::string& host) {
  const auto tracer = load(instrumented(script)["script"], WorkerRole::kTraces);
  command(*tracer, "trace", "");
  answered(*tracer, url, host);
  return command(*tracer, "trace", "");
}

constexpr char kScript[] = R"(function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || dnsDomainIs(host, ".example.org"))
    return "DIRECT";
  if (isInNet(host, "192.0.2.0", "255.255.255.0")) return "PROXY a:1";
  return "PROXY b:2";
}
)";

TEST(Workbench, NotesTheValuesOfTestsAndTheReturnThatDecides) {
  const auto report = instrumented(kScript);
  const auto tracer = load(report["script"], WorkerRole::kTraces);
  EXPECT_EQ(answered(*tracer, "http://www.example.org/", "www.example.org"), "DIRECT");
  const auto trace = command(*tracer, "trace", "");
  std::string told;
  for (const auto& event : trace["events"]) {
    if (event[0] != "v") continue;
    const auto& place = report["places"][event[1].get<std::size_t>()];
    told += std::to_string(place[1].get<int>()) + " " + place[4].get<std::string>() + " = " +
            event[2].get<std::string>() + "\n";
  }
  EXPECT_EQ(told,
            "2 isPlainHostName(host) = false\n"
            "2 dnsDomainIs(host, \".example.org\") = true\n"
            "2 isPlainHostName(host) || dnsDomainIs(host, \".example.org\") = true\n"
            "3 \"DIRECT\" = \"DIRECT\"\n");
}

TEST(Workbench, NotesWhatAHelperLooksUp) {
  const auto trace = traced(kScript, "http://known.example/", "known.example");
  Json calls = Json::array();
  for (const auto& event : trace["events"])
    if (event[0] == "c") calls.push_back({event[1], event[2], event[4], event[6].size()});
  EXPECT_EQ(calls, Json::parse(R"([[0,"isPlainHostName","false",0],[0,"dnsDomainIs","false",0],
                                   [1,"dnsResolve","\"192.0.2.7\"",1],[0,"isInNet","true",0]])"));
}

TEST(Workbench, RecordsWhatTheTraceBeforeHasSelected) {
  const auto report = instrumented(kScript);
  const auto tracer = load(report["script"], WorkerRole::kTraces);
  command(*tracer, "trace", "returns");
  const auto next = [&](const char* selected) {
    answered(*tracer, "http://known.example/", "known.example");
    return command(*tracer, "trace", selected);
  };
  const auto returns = next("counts");
  const auto counts = next("");
  const auto everything = next("");
  EXPECT_EQ(returns["counts"], Json::array());
  EXPECT_EQ(returns["events"].size(), 1U);
  EXPECT_EQ(returns["events"], counts["events"]);
  EXPECT_EQ(counts["counts"], everything["counts"]);
  // Four numbers for each of the places: 3 statements, 2 tests, 2 operands and a return.
  EXPECT_EQ(counts["counts"].size(), 4U * 8);
  EXPECT_GT(everything["events"].size(), 4U);
  EXPECT_EQ(returns["helpers"][0], 3) << "calls of helpers are always counted";
}

TEST(Workbench, ReportsTheLineThatTheParserDoesNotTake) {
  const auto parser = load("var a;\r\nvar b = ;\r\n", WorkerRole::kParses);
  const auto report = command(*parser, "instrument", Json::object());
  EXPECT_EQ(report["line"], 2);
  EXPECT_EQ(report["unparsed"], "Unexpected token");
}

TEST(Workbench, ParsesWhatIsNestedFarDeeperThanTheScriptsStackHolds) {
  std::string chain = "function FindProxyForURL(url, host) {\n";
  for (int i = 0; i < 2000; ++i)
    chain += (i == 0 ? "if" : "else if") + std::string(" (host == '") + std::to_string(i) +
             "') return 'DIRECT';\n";
  EXPECT_TRUE(instrumented(chain + "}\n").contains("script"));
}

TEST(Workbench, RefusesWhatTakesTheParserTooLong) {
  pac_engine::Options options;
  options.role = WorkerRole::kParses;
  options.timeLimit = std::chrono::milliseconds(1);
  Problem refused;
  EXPECT_EQ(Engine::load("", options, refused), nullptr);
  EXPECT_EQ(refused.message, "parsing it takes longer than the time limit of 1 ms");
}

#ifndef __SANITIZE_ADDRESS__  // with the sanitizer, memory and frames are larger

/// Returns the reason why the parser refuses `script`, or an empty text if the parser accepts it.
std::string refusedByParser(const std::string& script) {
  Problem problem;
  const auto parser = workbench::load(script, WorkerRole::kParses, problem);
  if (!parser) return problem.message;
  const auto text = parser->command("urls", "", problem);
  if (!text) return problem.message;
  return Json::parse(*text).value("unparsed", "");
}

// The engine keeps two bytes for each character of a text that has a character above U+00FF.
TEST(Workbench, ParsesWithMemoryUpToItsHeapLimitAndReportsWhatNeedsMore) {
  constexpr std::size_t kHeapMiB = 256;
  const auto comment = [](std::size_t mib) {
    return "/*\u20ac" + std::string((mib << 20U) / 2, 'x') + "*/";
  };
  // The parser itself needs less than 4 MiB.
  EXPECT_EQ(refusedByParser(comment(kHeapMiB - 4)), "");
  EXPECT_EQ(refusedByParser(comment(kHeapMiB)),
            "parsing it takes more memory than the heap limit of 256 MiB");
}

// A level of nesting takes about 1.7 KiB of the stack, which has 16 MiB. The compiler and its
// options change this size.
TEST(Workbench, ParsesNestingUpToItsStackLimitAndReportsWhatIsDeeper) {
  const auto chain = [](std::size_t levels) {
    std::string script;
    for (std::size_t i = 0; i < levels; ++i) script += "if (a); else ";
    return script + ";";
  };
  EXPECT_EQ(refusedByParser(chain(6000)), "");
  EXPECT_EQ(refusedByParser(chain(20000)), "it is nested more deeply than the parser can follow");
}

#endif

TEST(Workbench, KnowsNoOtherCommand) {
  const auto parser = load("", WorkerRole::kParses);
  Problem problem;
  EXPECT_FALSE(parser->command("toString", "", problem));
  EXPECT_EQ(problem.message, "Error: there is no command toString");
}

TEST(Workbench, TheDaemonsWorkerTakesNoCommand) {
  const auto engine = load(kScript, WorkerRole::kAnswers);
  Problem problem;
  EXPECT_FALSE(engine->command("trace", "", problem));
  EXPECT_EQ(problem.message, "the script worker ended without an answer");
}

}  // namespace
