// Tests name lookups of a script through all parts: worker, socket, library, name server.
#include <gtest/gtest.h>

#include <chrono>

#include "engine/pac_engine.h"
#include "tests/support/once_of_five.h"
#include "tests/support/shortest.h"
#include "tests/unit/engine/dns_server.h"

namespace {

using namespace pac_engine;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The host name with this number, for example "n7.test".
std::string nameOf(int number) {
  std::string name = "n";
  name += std::to_string(number);
  return name += ".test";
}

std::unique_ptr<Engine> load(const std::string& body, const DnsServer& server) {
  Options options;
  options.names.nameServers = server.address();
  Problem problem;
  auto engine =
      Engine::load("function FindProxyForURL(url, host) { " + body + " }", options, problem);
  EXPECT_NE(engine, nullptr) << describe(problem);
  return engine;
}

TEST(NamesOfAScript, AreLookedUp) {
  onceOfFive([] {
    const DnsServer server({{"a.test", {{"10.0.0.1", "2001:db8::1"}}}});
    const auto engine = load("return dnsResolve(host) + ' ' + isResolvableEx(host);", server);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->evaluate("http://h/", "a.test").result, "10.0.0.1 true");
    EXPECT_EQ(engine->evaluate("http://h/", "b.test").result, "null false");
  });
}

TEST(NamesOfAScript, AreTwentyInOneEvaluation) {
  onceOfFive([] {
    std::map<std::string, DnsName> all;
    for (int i = 0; i < 100; ++i) all[nameOf(i)] = {{"10.0.0.1"}};
    const DnsServer server(all);
    const auto engine = load(
        "var n = 0; for (var i = 0; i < 100; ++i) if (isResolvable('n' + i + '.test')) ++n; "
        "return String(n);",
        server);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->evaluate("http://h/", "h").result, "20");
    EXPECT_EQ(engine->evaluate("http://h/", "h").result, "20");
  });
}

TEST(NamesOfAScript, NeverHoldAnEvaluationPastItsLimit) {
  DnsName dead;
  dead.silent = true;
  std::map<std::string, DnsName> all;
  for (int i = 0; i < 20; ++i) all[nameOf(i)] = dead;
  const DnsServer server(all);
  const auto engine = load(
      "if (host == 'h') return 'DIRECT'; "
      "for (var i = 0; i < 20; ++i) isResolvable('n' + i + '.test'); return 'late';",
      server);
  // The library's time limit begins first, and this limit ends the last lookup. After that, the
  // worker has enough time for an answer in some runs, but not in others.
  const auto took =
      shortest(std::chrono::seconds(6), [&] { engine->evaluate("http://h/", "all"); });
  EXPECT_GE(took, milliseconds(4990));
  EXPECT_LT(took, std::chrono::seconds(6));
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "DIRECT");
}

TEST(NamesOfAScript, AreNoneForAnAddressThatIsGiven) {
  const DnsServer server({});
  const auto engine = load("return dnsResolve('10.1.2.3');", server);
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "10.1.2.3");
  EXPECT_EQ(server.questions("10.1.2.3"), 0);
}

}  // namespace
