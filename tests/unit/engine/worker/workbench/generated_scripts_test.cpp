// Compares instrumented scripts with the same scripts unchanged. Also compares the counts of the
// trace with counts that the scripts keep themselves. The scripts are generated. The environment
// variable WORKBENCH_SCRIPTS sets the number of scripts, and WORKBENCH_SEED sets the first seed.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/unit/engine/worker/workbench/workbench_engines.h"

namespace {

using pac_engine::Problem;
using pac_engine::WorkerRole;
using workbench::command;
using workbench::Json;
using workbench::load;

constexpr unsigned kScriptsOfAPlainRun = 25;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

const std::vector<std::string> kHosts{"a", "www.a.example", "b.example", "10.1.2.3", "long-host"};

std::string answered(pac_engine::Engine& engine, const std::string& host) {
  return workbench::answered(engine, "http://" + host + "/x", host);
}

/// Writes one script. If `counts` is true, the script keeps counters: how often each line runs, how
/// often each test is true or false, and how often each case is entered. A test or a case is
/// identified by its line and its number in this line.
/// Every second script has no blank that it does not need. The script that counts always has its
/// blanks: it must reach the same places.
class Generator {
 public:
  Generator(unsigned seed, bool counts)
      : mRandom(seed), mCounts(counts), mMinified(seed % 2 == 0 && !counts) {}

  std::string script() {
    // The first line, which has no generated statement. If the script counts, its entry point is
    // another function.
    mText = choose({"", "'use strict'; "});
    mText += mCounts ? "var kept = {}; function k(n) { kept[n] = (kept[n] || 0) + 1; } "
                       "function t(n, v) { k('t' + n + (v ? '+' : '-')); return v; } "
                     : "";
    mText += R"(var v = 0; var o = {p(x) { return x; }, get g() { return v > 1 && v < 5; }}; )"
             R"(function* gen(x) { yield v || x; v++; yield !x; } )"
             R"(function f(x) { if (x) return x; else return !x && v; } )"
             R"(class K { static s = v || 2; #p = 1; m(x = v && 1) { return this.#p && x; } } )"
             R"(class L extends (v || K) { static s = !v || 3; } )"
             R"(function pattern(x) { if (x) return /a\/x/.test(x); return [!x || v]; } )"
             R"(async function later(x) { await (!x || v); return !x || 'late'; } )";
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
          "return Object.keys(kept).sort().map((n) => n + '=' + kept[n]).join(' '); }\n";
    return mMinified ? withoutBlanks(mText) : mText;
  }

 private:
  /// `script` without the blanks beside a character that cannot be in a word. Texts keep their
  /// blanks.
  static std::string withoutBlanks(const std::string& script) {
    const auto isOfWord = [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '$';
    };
    std::string shorter;
    char quote = 0;
    for (std::size_t i = 0; i < script.size(); ++i) {
      const char c = script[i];
      if (quote != 0) {
        if (c == quote) quote = 0;
      } else if (c == '\'' || c == '"') {
        quote = c;
      } else if (c == ' ' && !(isOfWord(shorter.back()) && isOfWord(script[i + 1]))) {
        continue;
      }
      shorter += c;
    }
    return shorter;
  }

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
    mTests = mCases = 0;
  }

  std::string numbered(unsigned number) const {
    return "'" + std::to_string(mLine) + "." + std::to_string(number) + "'";
  }

  /// A test: `before`, an expression, and `behind`.
  std::string test(unsigned depth, const std::string& before = "", const std::string& behind = "") {
    const auto number = numbered(mTests++);
    return tested(number, before + expression(depth) + behind);
  }
  std::string tested(const std::string& number, const std::string& text) const {
    return mCounts ? "t(" + number + ", " + text + ")" : text;
  }

  /// The beginning of a case, which counts that it was entered.
  std::string entry(const std::string& head) {
    const auto number = numbered(mCases++);
    return head + ":" + (mCounts ? " k('c' + " + number + ");" : "");
  }

  /// Two cases with one body. The variable `first` makes sure that the first case gets its number
  /// before the second case.
  std::string fallThrough() {
    const auto first = entry("case 4");
    return first + " " + entry("case 5");
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
    const auto kind = depth == 0 ? below(3) : below(12);
    switch (kind) {
      case 0:
        return line("v = " + expression(2) + ";");
      case 1:
        return line(simple() + choose({";", ""}));
      case 2:
        return line(below(6) == 0 ? ending()
                                  : "if (" + test(2) + choose({") v += 1;", ") 'y'; else 'n';"}));
      case 3: {
        // A body without braces, in a line of its own.
        line("if (" + test(2) + ")");
        line(choose({"v = 3;", "return 'S' + v;", "v--;"}), true);
        raw("else");
        return line("v = 4;", true);
      }
      case 4: {
        const auto name = "i" + std::to_string(depth);
        return block("for (var " + name + " = 0; " + test(1, name + " < 3 && (", " || true)") +
                         "; " + name + "++)",
                     depth);
      }
      case 5:
        raw(counted("try {"));
        statements(depth - 1, 1 + below(2));
        if (below(3) == 0) line("throw new TypeError('t' + v);");
        raw("} catch (error) {");
        line("v = String(error.message).length;");
        return raw("}");
      case 6:
        line("switch (" + choose({"v", "host", "typeof v"}) + ") {");
        raw(entry("case " + choose({"1", "'a'", "'number'", "f(v)"})));
        statements(depth - 1, 1 + below(2));
        raw(fallThrough());
        line(choose({"v = 9;", "break;"}));
        raw(entry("default"));
        statements(depth - 1, below(2));
        return raw("}");
      case 7:
        return block("for (const x of gen(" + expression(1) + "))", depth);
      case 8: {
        const auto name = "d" + std::to_string(depth);
        raw(counted("var " + name + " = 0; do {"));
        statements(depth - 1, 1 + below(2));
        return raw("} while (" + test(1, name + "++ < 2 && (", " || true)") + ");");
      }
      case 9:
        return block(choose({"for (const x of [0, v])", "for (const x in [v])",
                             "for (const x of !host || gen(v))"}),
                     depth);
      default:
        return block("if (" + test(2) + ")", depth);
    }
  }

  /// A statement that ends the function.
  std::string ending() {
    switch (below(6)) {
      case 0:
        return "return !" + expression(1) + " || 'N';";
      case 1:
        return "return [" + expression(1) + "] + 'L';";
      case 2:
        return "return `T${" + expression(1) + "}`;";
      case 3:
        return "return (v, 'S') + (" + expression(1) + ");";
      case 4:
        return "throw !" + expression(1) + " || 'T';";
      default:
        return "return 'R' + (" + expression(1) + ");";
    }
  }

  std::string simple() {
    switch (below(8)) {
      case 0:
        return "v++";
      case 1:
        return "var w = o.g || " + expression(1);
      case 2:
        return "o.p(" + expression(2) + ")";
      case 3:
        return "new K().m()";
      case 4:
        return "v = typeof (" + expression(1) + ")";
      case 5:
        return "delete (o).q";
      case 6:
        return "v = [v]; do (v)++; while (" + tested(numbered(mTests++), "false") + ")";
      default:
        return "alert(v)";
    }
  }

  /// Two expressions with `between`. The first expression is made before the second, so that the
  /// tests in them get their numbers in order.
  std::string joined(unsigned depth, const std::string& between) {
    const auto first = expression(depth);
    return first + between + expression(depth);
  }

  std::string expression(unsigned depth) {
    const auto below1 = depth == 0 ? 0 : depth - 1;
    const auto inner = [&] { return expression(below1); };
    switch (below(depth == 0 ? 8 : 24)) {
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
        return "(" + joined(below1, " && ") + ")";
      case 10:
        return "(" + joined(below1, " || ") + ")";
      case 11: {
        const auto condition = test(below1);
        return "(" + condition + " ? " + joined(below1, " : ") + ")";
      }
      case 12:
        return "(v = v + 1, " + inner() + ")";
      case 13:
        return "f(" + inner() + ")";
      case 14:
        return "o?.p?.(" + inner() + ")";
      case 15:
        return "((x) => x || " + joined(below1, ")(") + ")";
      case 16:
        return "(typeof (" + inner() + ") || void (0))";
      case 17:
        return "('x' in [" + inner() + "])";
      case 18:
        return "(new (v && L || K)() instanceof (K) && L.s)";
      case 19:
        return "pattern(" + inner() + ")";
      case 20:
        return "later(" + inner() + ")";
      case 21: {
        const auto condition = test(below1, "/a/.test(", ")");
        return "(" + condition + " ? 'y' : `n${" + inner() + "}`)";
      }
      case 22:
        return "eval(\"host.length > 3 && v\")";
      default:
        if (below(8) == 0) return "nothing.here";
        return "([...gen(" + joined(below1, ")].length ?? `${") + "}`)";
    }
  }

  std::mt19937 mRandom;
  const bool mCounts;
  const bool mMinified;
  std::string mText;
  unsigned mLine = 1;
  unsigned mTests = 0;  ///< number of tests in this line
  unsigned mCases = 0;
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
  // At least a third of the questions must have an answer.
  EXPECT_GT(answers, number * kHosts.size() / 3);
}

/// The counts of the trace, in the format of a script that counts: "LINE=TIMES" for the first
/// statement of a line, "tLINE.NUMBER+=TIMES" and "tLINE.NUMBER-=TIMES" for a true and a false
/// test, "cLINE.NUMBER=TIMES" for a case.
std::string countsOf(const Json& trace, const Json& places) {
  // Numbers the tests and cases of each line in the order of their columns. If two begin in the
  // same column, the outer one is first.
  std::map<std::tuple<char, unsigned, unsigned, std::size_t>, std::size_t> order;
  for (std::size_t i = 0; i < places.size(); ++i) {
    const auto kind = places[i][0].get<std::string>()[0];
    order[{kind, places[i][1], places[i][2], i}] = i;
  }
  std::map<std::size_t, unsigned> numbers;
  std::map<std::pair<char, unsigned>, unsigned> next;
  for (const auto& [key, place] : order)
    numbers[place] = next[{std::get<0>(key), std::get<1>(key)}]++;

  std::map<std::string, unsigned> counts;
  const auto add = [&](const std::string& name, const Json& times) {
    if (times != 0) counts[name] += times.get<unsigned>();
  };
  const auto& all = trace["counts"];
  for (std::size_t i = 0; i < all.size(); i += 4) {
    const auto index = all[i].get<std::size_t>();
    const auto& place = places[index];
    const auto kind = place[0].get<std::string>()[0];
    const auto line = place[1].get<unsigned>();
    if (line == 1) continue;
    const auto name = kind + std::to_string(line) + "." + std::to_string(numbers[index]);
    // A script that counts has one counter for each line, so only the statement in column 1 is
    // compared.
    if (kind == 's' && place[2] == 1) add(std::to_string(line), all[i + 1]);
    if (kind == 'c') add(name, all[i + 1]);
    if (kind != 't') continue;
    add(name + "+", all[i + 2]);
    add(name + "-", all[i + 3]);
  }
  std::string text;
  for (const auto& [name, count] : counts)
    text += (text.empty() ? "" : " ") + name + "=" + std::to_string(count);
  return text;
}

TEST(GeneratedScripts, ReachTheirStatementsAndBranchesAsOftenAsTheyCountThemselves) {
  const auto first = numberFrom("WORKBENCH_SEED", 1);
  const auto number = numberFrom("WORKBENCH_SCRIPTS", kScriptsOfAPlainRun);
  std::map<char, unsigned> counted;
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
    for (const auto& host : kHosts) {
      answered(*traced, host);
      const auto counts = countsOf(command(*traced, "trace"), report["places"]);
      ASSERT_EQ(counts, answered(*counting, host)) << seed << "\n" << script;
      for (const auto kind : {'t', 'c'})
        if (counts.find(kind) != counts.npos) ++counted[kind];
    }
  }
  // Enough evaluations must reach a test, and some must reach a case.
  EXPECT_GT(counted['t'], number * kHosts.size() / 3);
  EXPECT_GT(counted['c'], number * kHosts.size() / 20);
}

}  // namespace
