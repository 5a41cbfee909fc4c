// Runs harmful scripts in the library's sandboxed worker. Within the limits, each question gets an
// answer, or a report that there is no answer. After that, the next question is answered, this
// process uses no more memory than before, and no process is left.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <ostream>
#include <string>

#include "engine/pac_engine.h"
#include "tests/support/log_capture.h"
#include "tests/support/once_of_five.h"

namespace {

using namespace pac_engine;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kTimeLimit{1000};
// A tolerance for a busy machine, and for a script that is loaded again.
constexpr milliseconds kRoom{20'000};

struct Hostile {
  const char* name;
  const char* body;  ///< runs for the host "evil"
};

/// Prints the name of a case, which becomes a part of the test's name.
std::ostream& operator<<(std::ostream& stream, const Hostile& script) {
  return stream << script.name;
}

Options options() {
  Options chosen;
  chosen.names.offline = true;
  chosen.timeLimit = kTimeLimit;
  return chosen;
}

void expectNoChildren() {
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

class HostileScript : public ::testing::TestWithParam<Hostile> {};

TEST_P(HostileScript, CostsItsOwnAnswerAtMost) {
  const std::string script =
      "function FindProxyForURL(url, host) { if (host != 'evil') return "
      "'PROXY ' + host + ':1'; " +
      std::string(GetParam().body) + " }";
  std::unique_ptr<Engine> engine;
  onceOfFive([&] {
    Problem problem;
    engine = Engine::load(script, options(), problem);
    ASSERT_NE(engine, nullptr) << describe(problem);
    EXPECT_EQ(engine->evaluate("http://a/", "before").result, "PROXY before:1");
  });
  ASSERT_NE(engine, nullptr);
  clearLog();
  const auto heap = mallinfo2().uordblks;
  for (int round = 0; round < 2; ++round) {
    onceOfFive([&] {
      const auto start = steady_clock::now();
      engine->evaluate("http://a/", "evil");
      EXPECT_LT(steady_clock::now() - start, kTimeLimit + kKillGrace + kRoom);
      EXPECT_EQ(engine->evaluate("http://a/", "after").result, "PROXY after:1");
    });
  }
  clearLog();  // the captured lines are not memory of the library
  EXPECT_LT(mallinfo2().uordblks, heap + (128U << 10U));
  engine.reset();
  expectNoChildren();
}

INSTANTIATE_TEST_SUITE_P(
    Library, HostileScript,
    ::testing::Values(
        Hostile{"endless_loop", "for (;;) {}"},
        Hostile{"endless_finally", "for (;;) { try { for (;;) {} } finally { continue; } }"},
        Hostile{"endless_getter", "return ({ get a() { for (;;) {} } }).a;"},
        Hostile{"endless_regular_expression", "return /^(a+)+$/.test('a'.repeat(40) + 'b') + '';"},
        Hostile{"endless_comparator",
                "[3, 1, 2].sort(function () { for (;;) {} }); return 'DIRECT';"},
        Hostile{"endless_recursion", "function f() { return f() + 1; } return f();"},
        Hostile{"endless_recursion_through_proxy",
                "var p = new Proxy({}, { get: function (t, k, r) { return r[k]; } }); return p.x;"},
        Hostile{"endless_recursion_through_to_string",
                "var o = { toString: function () { return '' + o; } }; return '' + o;"},
        Hostile{"array_bomb", "var a = []; for (;;) a.push(a.slice());"},
        Hostile{"global_array_bomb", "globalThis.a = []; for (;;) a.push([1, 2, 3, 4]);"},
        Hostile{"string_bomb", "var s = 'x'; for (;;) s = s + s + 'y'.repeat(9).slice(1);"},
        Hostile{"map_bomb", "var m = new Map(); for (var i = 0;; ++i) m.set(i, [i]);"},
        Hostile{"typed_array_bomb", "var a = []; for (;;) a.push(new Uint8Array(1 << 20));"},
        Hostile{"giant_typed_array", "return '' + new Uint8Array(2147483647).length;"},
        Hostile{"result_of_100_mib", "return 'x'.repeat(100 << 20);"},
        Hostile{"throws_null", "throw null;"},
        Hostile{"alert_flood", "for (;;) alert('y'.repeat(1000));"},
        Hostile{"ten_thousand_names",
                "for (var i = 0; i < 10000; ++i) dnsResolve('n' + i + '.test'); return 'DIRECT';"},
        Hostile{"endless_own_addresses", "for (;;) myIpAddressEx();"},
        Hostile{"giant_name", "return '' + dnsResolve('x'.repeat(10 << 20));"},
        Hostile{"redefined_prototypes",
                "Object.prototype.toString = Array.prototype.join = null; "
                "Object.defineProperty(Object.prototype, 'get', { get: function () { for (;;) {} "
                "} }); return [1].join();"}),
    [](const auto& test) { return test.param.name; });

void expectRefused(const std::string& script) {
  const auto start = steady_clock::now();
  Problem problem;
  EXPECT_EQ(Engine::load(script, options(), problem), nullptr);
  EXPECT_NE(problem.message, "");
  EXPECT_LT(steady_clock::now() - start, kTimeLimit + kKillGrace + kRoom);
  expectNoChildren();
}

const std::string kEntry = "function FindProxyForURL() { return 'DIRECT'; }";

TEST(HostileLoad, IsRefusedForAnEndlessLoop) {
  expectRefused(kEntry + "for (;;) {}");
}

TEST(HostileLoad, IsRefusedForABomb) {
  expectRefused(kEntry + "var a = []; for (;;) a.push([1]);");
}

TEST(HostileLoad, IsRefusedForTwoHundredThousandBrackets) {
  expectRefused(kEntry + std::string(200000, '[') + std::string(200000, ']'));
}

TEST(HostileLoad, IsRefusedForBytesThatAreNoScript) {
  expectRefused(
      "\x7f"
      "ELF\x02\x01\x01");
}

TEST(HostileLoad, BearsHalfAMegabyteInOneFunction) {
  std::string script = "function FindProxyForURL(url, host) {\n";
  for (int i = 0; script.size() < 500'000; ++i) {
    script += "if (host == 'h";
    script += std::to_string(i);
    script += ".test') return 'PROXY x:1';\n";
  }
  Problem problem;
  auto patient = options();
  patient.timeLimit = std::chrono::seconds(60);
  const auto engine = Engine::load(script + "return 'DIRECT'; }", patient, problem);
  ASSERT_NE(engine, nullptr) << describe(problem);
  EXPECT_EQ(engine->evaluate("http://a/", "a").result, "DIRECT");
}

}  // namespace
