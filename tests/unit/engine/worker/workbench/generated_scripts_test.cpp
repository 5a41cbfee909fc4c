// Instrumented scripts against the same scripts as they are, and their counts against counts that
// the scripts keep themselves. The scripts are generated; WORKBENCH_SCRIPTS in the environment is
// their number, WORKBENCH_SEED the first of their seeds.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "engine/pac_engine.h"

namespace {

using Json = nlohmann::json;
using pac_engine::Engine;
using pac_engine::Options;
using pac_engine::Problem;
using pac_engine::WorkerRole;

constexpr unsigned kScriptsOfAPlainRun = 25;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

const std::vector<std::string> kHosts{"a", "www.a.example", "b.example", "10.1.2.3", "long-host"};

std::unique_ptr<Engine> load(const std::string& script, WorkerRole role, Problem& refused) {
  Options options;
  options.role = role;
  options.clock = 1770000000;
  options.zone = "UTC";
  options.names.staticNames = pac_engine::StaticNames{{"b.example", {"10.9.9.9"}}};
  options.ownAddresses = {{"10.1.2.3"}};
  options.timeLimit = std::chrono::seconds(60);
  return Engine::load(script, options, refused);
}

Json command(Engine& engine, const std::string& name) {
  Problem problem;
  const auto text = engine.command(name, "", problem);
  EXPECT_TRUE(text) << pac_engine::describe(problem);
  return text ? Json::parse(*text) : Json();
}

std::string answered(Engine& engine, const std::string& host) {
  const auto reply = engine.evaluate("http://" + host + "/x", host);
  return reply.result ? *reply.result : pac_engine::describe(reply.problem);
}

/// Writes one script. With `counts` each statement first counts its own line.
class Generator {
 public:
  Generator(unsigned seed, bool counts) : mRandom(seed), mCounts(counts) {}

  std::string script() {
    // One line, which no generated statement is on; counting, the entry point is another function.
    mText = choose({"", "'use strict'; "});
    mText += mCounts ? "var kept = {}; function k(n) { kept[n] = (kept[n] || 0) + 1; } " : "";
    mText += R"(var v = 0; var o = {p(x) { return x; }, get g() { return v > 1 && v < 5; }}; )"
             R"(function* gen(x) { yield v || x; v++; yield !x; } )"
             R"(function f(x) { if (x) return x; else return !x && v; } )"
             R"(class K { static s = v || 2; #p = 1; m(x = v && 1) { return this.#p && x; } } )";
    mText += choose({"", "function dnsResolve(h) { return h == 'a' ? '10.1.1.1' : null; } ",
                     "var isPlainHostName = function (h) { return h.length < 4; }; ",
                     "function shExpMatch() { throw new Error('mine'); } "});
    mText += mCounts ? "function Inner(url, host) {\n" : "function FindProxyForURL(url, host) {\n";
    mLine = 2;
    statements(3, 4 + below(6));
    line("return 'END ' + v;");
    mText += "}\n";
    if (mCounts)
      mText +=
          "function FindProxyForURL(url, host) { kept = {}; try { Inner(url, host); } catch (e) {} "
          "return Object.keys(kept).map((n) => n + '=' + kept[n]).join(' '); }\n";
    return mText;
  }

 private:
  unsigned below(unsigned limit) { return static_cast<unsigned>(mRandom() % limit); }
  std::string choose(const std::vector<std::string>& list) {
    return list[below(static_cast<unsigned>(list.size()))];
  }

  std::string counted(const std::string& text, bool isBody = false) {
    const auto call = mCounts ? "k(" + std::to_string(mLine) + "); " : "";
    return mCounts && isBody ? "{ " + call + text + " }" : call + text;
  }
  void line(const std::string& text, bool isBody = false) { raw(counted(text, isBody)); }
  void raw(const std::string& text) {
    mText += text + "\n";
    ++mLine;
  }

  void statements(unsigned depth, unsigned count) {
    for (unsigned i = 0; i < count; ++i) statement(depth);
  }

  void block(const std::string& head, unsigned depth) {
    line(head + " {");
    statements(depth - 1, 1 + below(3));
    raw("}");
  }

  void statement(unsigned depth) {
    const auto kind = depth == 0 ? below(3) : below(10);
    switch (kind) {
      case 0:
        return line("v = " + expression(2) + ";");
      case 1:
        return line(choose({"v++", "var w = o.g || " + expression(1), "o.p(" + expression(2) + ")",
                            "new K().m()", "alert(v)"}) +
                    choose({";", ""}));
      case 2:
        return below(6) != 0 ? line("if (" + expression(2) + ") v += 1;", false)
                             : line("return 'R' + (" + expression(1) + ");");
      case 3: {
        // A body without braces, on a line of its own.
        line("if (" + expression(2) + ")");
        line(choose({"v = 3;", "return 'S' + v;", "v--;"}), true);
        raw("else");
        return line("v = 4;", true);
      }
      case 4:
        return block("for (var i" + std::to_string(depth) + " = 0; i" + std::to_string(depth) +
                         " < 3 && (" + expression(1) + " || true); i" + std::to_string(depth) +
                         "++)",
                     depth);
      case 5:
        raw(counted("try {"));
        statements(depth - 1, 1 + below(2));
        if (below(3) == 0) line("throw new TypeError('t' + v);");
        raw("} catch (error) {");
        line("v = String(error.message).length;");
        return raw("}");
      case 6:
        line("switch (" + choose({"v", "host", "typeof v"}) + ") {");
        raw("case " + choose({"1", "'a'", "'number'", "f(v)"}) + ":");
        statements(depth - 1, 1 + below(2));
        raw("case 4: case 5:");
        line(choose({"v = 9;", "break;"}));
        raw("default:");
        statements(depth - 1, below(2));
        return raw("}");
      case 7:
        return block("for (const x of gen(" + expression(1) + "))", depth);
      default:
        return block("if (" + expression(2) + ")", depth);
    }
  }

  std::string expression(unsigned depth) {
    const auto inner = [&] { return depth == 0 ? std::string("v") : expression(depth - 1); };
    switch (below(depth == 0 ? 8 : 18)) {
      case 0:
        return "isPlainHostName(host)";
      case 1:
        return "dnsDomainIs(host, '.example')";
      case 2:
        return "shExpMatch(url, '*a*')";
      case 3:
        return "v";
      case 4:
        return "host == 'a'";
      case 5:
        return "isInNet(host, '10.0.0.0', '255.0.0.0')";
      case 6:
        return "o.g";
      case 7:
        return "dnsResolve(host)";
      case 8:
        return "!" + inner();
      case 9:
        return "(" + inner() + " && " + inner() + ")";
      case 10:
        return "(" + inner() + " || " + inner() + ")";
      case 11:
        return "(" + inner() + " ? " + inner() + " : " + inner() + ")";
      case 12:
        return "(v = v + 1, " + inner() + ")";
      case 13:
        return "f(" + inner() + ")";
      case 14:
        return "o?.p?.(" + inner() + ")";
      case 15:
        return "((x) => x || " + inner() + ")(" + inner() + ")";
      case 16:
        return "eval(\"host.length > 3 && v\")";
      default:
        return below(8) == 0 ? "nothing.here"
                             : "([...gen(" + inner() + ")].length ?? `${" + inner() + "}`)";
    }
  }

  std::mt19937 mRandom;
  const bool mCounts;
  std::string mText;
  unsigned mLine = 1;
};

TEST(GeneratedScripts, AnswerAlikeWhetherWatchedOrNot) {
  const auto first = numberFrom("WORKBENCH_SEED", 1);
  const auto number = numberFrom("WORKBENCH_SCRIPTS", kScriptsOfAPlainRun);
  unsigned answers = 0;
  for (unsigned seed = first; seed < first + number; ++seed) {
    const auto script = Generator(seed, false).script();
    Problem refused;
    const auto plain = load(script, WorkerRole::kAnswers, refused);
    ASSERT_NE(plain, nullptr) << seed << " " << pac_engine::describe(refused) << "\n" << script;
    const auto parser = load(script, WorkerRole::kParses, refused);
    ASSERT_NE(parser, nullptr) << pac_engine::describe(refused);
    const auto report = command(*parser, "instrument");
    ASSERT_TRUE(report.contains("script")) << seed << report << "\n" << script;
    const auto traced = load(report["script"], WorkerRole::kTraces, refused);
    ASSERT_NE(traced, nullptr) << seed << pac_engine::describe(refused) << "\n" << report["script"];
    for (const auto& host : kHosts) {
      const auto expected = answered(*plain, host);
      ASSERT_EQ(answered(*traced, host), expected) << seed << "\n" << script;
      if (!expected.starts_with("line")) ++answers;
    }
  }
  // Most of them answer at all.
  EXPECT_GT(answers, number * kHosts.size() / 3);
}

TEST(GeneratedScripts, ReachTheirStatementsAsOftenAsTheyCountThemselves) {
  const auto first = numberFrom("WORKBENCH_SEED", 1);
  const auto number = numberFrom("WORKBENCH_SCRIPTS", kScriptsOfAPlainRun);
  for (unsigned seed = first; seed < first + number; ++seed) {
    const auto script = Generator(seed, false).script();
    Problem refused;
    const auto parser = load(script, WorkerRole::kParses, refused);
    ASSERT_NE(parser, nullptr);
    const auto report = command(*parser, "instrument");
    const auto traced = load(report["script"], WorkerRole::kTraces, refused);
    const auto counting = load(Generator(seed, true).script(), WorkerRole::kAnswers, refused);
    ASSERT_TRUE(traced && counting) << seed << pac_engine::describe(refused);
    command(*traced, "trace");
    const auto host = kHosts[seed % kHosts.size()];
    answered(*traced, host);
    std::map<unsigned, unsigned> lines;
    const auto trace = command(*traced, "trace");
    for (const auto& count : trace["counts"]) {
      const auto& place = report["places"][count[0].get<std::size_t>()];
      const auto line = place[1].get<unsigned>();
      // The first statement of a line, as the script counts: column 1, or behind nothing else.
      if (place[0].get<std::string>()[0] == 's' && line > 1 && place[2] == 1)
        lines[line] += count[1].get<unsigned>();
    }
    std::string told;
    for (const auto& [line, count] : lines)
      told += (told.empty() ? "" : " ") + std::to_string(line) + "=" + std::to_string(count);
    ASSERT_EQ(told, answered(*counting, host)) << seed << "\n" << script;
  }
}

}  // namespace
