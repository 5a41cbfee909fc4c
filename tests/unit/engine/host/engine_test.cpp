// Tests Engine with the real worker.
#include <gtest/gtest.h>
#include <syslog.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "engine/pac_engine.h"
#include "tests/support/log_capture.h"
#include "tests/support/once_of_five.h"
#include "tests/support/own_root.h"

namespace {

using namespace pac_engine;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Options for scripts that end at once. The time limit is not reached even on a very slow machine.
Options patient() {
  Options options;
  options.timeLimit = std::chrono::seconds(60);
  return options;
}

std::unique_ptr<Engine> load(const std::string& script, Options options = patient()) {
  Problem problem;
  auto engine = Engine::load(script, std::move(options), problem);
  EXPECT_NE(engine, nullptr) << describe(problem);
  return engine;
}

Problem refusal(const std::string& script, Options options = patient()) {
  Problem problem;
  EXPECT_EQ(Engine::load(script, std::move(options), problem), nullptr);
  return problem;
}

std::string script(const std::string& body) {
  return "function FindProxyForURL(url, host) { " + body + " }";
}

/// The answer of a script that returns this expression, for http://h/ and h.
std::string answer(const std::string& expression, Options options = patient()) {
  const auto engine = load(script("return String(" + expression + ");"), std::move(options));
  if (!engine) return "refused";
  const auto reply = engine->evaluate("http://h/", "h");
  return reply.result.value_or("none: " + reply.problem.message);
}

TEST(Engine, AnswersWithWhatTheScriptReturns) {
  const auto engine = load(script("return 'PROXY ' + host + ':1; ' + url;"));
  EXPECT_EQ(engine->evaluate("http://User:pw@Host/x?y#z", "Host").result,
            "PROXY Host:1; http://host/x?y");
  EXPECT_EQ(engine->evaluate("https://host/x?y", "").result, "PROXY :1; https://host/");
  EXPECT_EQ(engine->evaluate("text", "any text").result, "PROXY any text:1; text");
}

TEST(Engine, KeepsTheGlobalsOfAScript) {
  const auto engine = load("var n = 0; " + script("return 'N' + ++n;"));
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "N1");
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "N2");
}

TEST(Engine, TakesAnEmptyAnswerForAnAnswer) {
  EXPECT_EQ(load(script("return '';"))->evaluate("http://h/", "h").result, "");
}

TEST(Engine, SaysWhyAndWhereAScriptIsRefused) {
  const auto syntax = refusal("\n\nfunction FindProxyForURL( {");
  EXPECT_EQ(syntax.line, 3U);
  EXPECT_EQ(syntax.message.rfind("SyntaxError", 0), 0U) << syntax.message;
  const auto thrown = refusal("\nthrow new Error('no\\nway');");
  EXPECT_EQ(thrown.line, 2U);
  EXPECT_NE(thrown.message.find("Error: no"), std::string::npos) << thrown.message;
  EXPECT_EQ(refusal("var x = 1;").message, "the script defines no function FindProxyForURL");
  EXPECT_EQ(refusal("").message, "the script defines no function FindProxyForURL");
}

TEST(Engine, EndsAScriptAtItsNul) {
  const std::string text = script("return 'A';") + std::string("\0 syntax error {", 16);
  EXPECT_EQ(load(text)->evaluate("http://h/", "h").result, "A");
}

TEST(Engine, SaysWhyAndWhereThereIsNoAnswer) {
  const auto engine = load("function FindProxyForURL() {\n  throw new Error('x');\n}");
  const auto reply = engine->evaluate("http://h/", "h");
  EXPECT_FALSE(reply.result);
  EXPECT_EQ(reply.problem.line, 2U);
  EXPECT_NE(reply.problem.message.find("Error: x"), std::string::npos) << reply.problem.message;
}

TEST(Engine, StopsAnEndlessScriptAndAnswersTheNextQuestion) {
  onceOfFive([] {
    Options options;
    options.timeLimit = milliseconds(300);
    const auto engine = load(script("if (host == 'loop') for (;;) {} return 'DIRECT';"), options);
    ASSERT_NE(engine, nullptr);
    const auto pid = engine->workerPid();
    const auto start = steady_clock::now();
    EXPECT_FALSE(engine->evaluate("http://h/", "loop").result);
    const auto took = steady_clock::now() - start;
    EXPECT_GE(took, milliseconds(295));
    EXPECT_LT(took, std::chrono::seconds(60));
    EXPECT_EQ(engine->evaluate("http://h/", "h").result, "DIRECT");
    EXPECT_EQ(engine->workerPid(), pid) << "the engine's own limit comes before the wall outside";
  });
}

TEST(Engine, RefusesAScriptThatLoadsWithoutEnd) {
  Options options;
  options.timeLimit = milliseconds(300);
  const auto start = steady_clock::now();
  EXPECT_NE(refusal("for (;;) {}", options).message, "");
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(60));
}

TEST(Engine, TakesUrlAndHostAt8KiBAndNotPastIt) {
  const auto engine = load(script("return String(url.length) + ' ' + host.length;"));
  const std::string start = "http://h/";
  const std::string url = start + std::string(8192 - start.size(), 'x');
  const std::string host(8192, 'h');
  EXPECT_EQ(engine->evaluate(url, host).result, "8192 8192");
  EXPECT_FALSE(engine->evaluate(url + "x", host).result);
  EXPECT_FALSE(engine->evaluate(url, host + "h").result);
  EXPECT_EQ(engine->evaluate(url, host).result, "8192 8192");
}

TEST(Engine, TakesAResultAt64KiBAndNotPastIt) {
  const auto engine = load(script("return 'x'.repeat(Number(host));"));
  EXPECT_EQ(engine->evaluate("http://h/", "65536").result, std::string(65536, 'x'));
  EXPECT_FALSE(engine->evaluate("http://h/", "65537").result);
  EXPECT_EQ(engine->evaluate("http://h/", "1").result, "x");
}

std::size_t alertBytes() {
  const std::string start = "pac_engine: alert: ";
  std::size_t bytes = 0;
  for (const auto& line : logLines()) {
    if (line.text.rfind(start, 0) == 0) bytes += line.text.size() - start.size();
  }
  return bytes;
}

TEST(Engine, LogsAlertsUpTo2KiBInOneEvaluation) {
  const auto engine = load(script("alert('x'.repeat(Number(host))); alert('more'); return 'A';"));
  EXPECT_EQ(engine->evaluate("http://h/", "3").result, "A");
  EXPECT_TRUE(logged(LOG_DEBUG, "pac_engine: alert: xxx"));
  EXPECT_TRUE(logged(LOG_DEBUG, "pac_engine: alert: more"));
  clearLog();
  engine->evaluate("http://h/", "2048");
  EXPECT_EQ(alertBytes(), 2048U);
  clearLog();
  engine->evaluate("http://h/", "2049");
  EXPECT_EQ(alertBytes(), 2048U);
  clearLog();
  engine->evaluate("http://h/", "3");
  EXPECT_TRUE(logged(LOG_DEBUG, "pac_engine: alert: more")) << "the next evaluation has its own";
}

TEST(Engine, BearsAFloodOfAlerts) {
  clearLog();
  const auto engine = load(script("for (var i = 0; i < 100000; ++i) alert('x'); return 'A';"));
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "A");
  EXPECT_EQ(logLines().size(), 2048U);
}

TEST(Engine, RunsInTheTimeAndZoneItIsGiven) {
  Options options = patient();
  options.clock = 1'700'000'000;  // Tuesday 2023-11-14 22:13:20 UTC
  options.zone = "Asia/Tokyo";    // Wednesday 07:13:20 there
  EXPECT_EQ(answer("weekdayRange('WED') && timeRange(7)", options), "true");
  EXPECT_EQ(answer("weekdayRange('TUE', 'GMT') && timeRange(22, 'GMT')", options), "true");
  EXPECT_EQ(answer("new Date(1700000000000).getHours()", options), "7");
}

TEST(Engine, KnowsTheDevicesZoneBehindTheWalls) {
  unsetenv("TZ");  // a worker has no environment variables
  tzset();
  const auto engine = load(script("return String(new Date(1700000000000).getHours());"));
  const std::time_t when = 1'700'000'000;
  std::tm local{};
  localtime_r(&when, &local);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(engine->evaluate("http://h/", "h").result, std::to_string(local.tm_hour));
  }
}

// The smallest valid zone file (RFC 8536, version 1), for a zone without rules, for example UTC or
// UTC+9.
std::string zoneFile(unsigned char hoursEast) {
  const std::uint32_t offset = hoursEast * 3600U;
  std::string file = std::string("TZif") + std::string(16, '\0');
  for (const char count : {'\0', '\0', '\0', '\0', '\1', '\4'})
    file += std::string(3, '\0') + count;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) file += static_cast<char>(offset >> shift);
  return file + std::string(2, '\0') + std::string("AAA\0", 4);
}

void putZone(const std::string& file) {
  std::ofstream("/etc/zone.new") << file;
  std::filesystem::rename("/etc/zone.new", "/etc/localtime");
}

TEST(Engine, FollowsTheDeviceIntoAnotherZone) {
  enterOwnRoot();
  putZone(zoneFile(0));
  const auto engine = load("var n = 0; " + script("return ++n + '/' + new Date(0).getHours();"));
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "1/0");
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "2/0");
  const auto first = engine->workerPid();
  clearLog();
  putZone(zoneFile(9));
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "1/9") << "a new worker with a new load";
  EXPECT_TRUE(logged(LOG_DEBUG, "pac_engine: the device's zone has changed, worker " +
                                    std::to_string(first) + " is replaced"));
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "2/9");
  std::filesystem::remove("/etc/localtime");
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "1/0") << "a device without one keeps UTC";
}

TEST(Engine, StaysInTheZoneItIsGivenWhereTheDeviceChangesIts) {
  enterOwnRoot();
  putZone(zoneFile(0));
  Options options = patient();
  options.zone = "Asia/Tokyo";
  const auto engine =
      load("var n = 0; " + script("return ++n + '/' + new Date(0).getHours();"), options);
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "1/9");
  putZone(zoneFile(3));
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "2/9");
}

TEST(Engine, GivesNamesAndAddressesItIsGiven) {
  Options options = patient();
  options.names.staticNames = StaticNames{{"a.test", {"10.0.0.1", "2001:db8::1"}}};
  options.ownAddresses = std::vector<std::string>{"2001:db8::9", "10.0.0.9"};
  EXPECT_EQ(answer("dnsResolve('a.test')", options), "10.0.0.1");
  EXPECT_EQ(answer("dnsResolve('b.test')", options), "null");
  EXPECT_EQ(answer("dnsResolveEx('a.test')", options), "10.0.0.1;2001:db8::1");
  EXPECT_EQ(answer("myIpAddress()", options), "10.0.0.9");
  EXPECT_EQ(answer("myIpAddressEx()", options), "2001:db8::9;10.0.0.9");
}

TEST(Engine, IsAtItsIpv6AddressWithoutAnIpv4Address) {
  Options options = patient();
  options.ownAddresses = std::vector<std::string>{"2001:db8::9", "2001:db8::8"};
  EXPECT_EQ(answer("myIpAddress()", options), "2001:db8::9");
}

TEST(Engine, ResolvesOnlyLocalhostOfflineAndIsTheLoopback) {
  Options options = patient();
  options.names.offline = true;
  EXPECT_EQ(answer("dnsResolve('a.test')", options), "null");
  EXPECT_EQ(answer("isResolvable('a.test')", options), "false");
  EXPECT_EQ(answer("dnsResolveEx('a.test')", options), "");
  EXPECT_EQ(answer("dnsResolveEx('localhost')", options), "::1;127.0.0.1");
  EXPECT_EQ(answer("myIpAddress()", options), "127.0.0.1");
  EXPECT_EQ(answer("myIpAddressEx()", options), "127.0.0.1");
}

TEST(Engine, LetsAScriptUseItsHelpersWhileItLoads) {
  Options options = patient();
  options.names.staticNames = StaticNames{{"a.test", {"10.0.0.1"}}};
  const auto engine = load("var a = dnsResolve('a.test'); " + script("return a;"), options);
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "10.0.0.1");
}

TEST(Engine, RefusesEveryScriptWhereNoWorkerCanBeHad) {
  Options options = patient();
  options.workerProgram = "/nowhere/worker";
  EXPECT_EQ(refusal(script("return 'A';"), options).message,
            "no script worker: /nowhere/worker: No such file or directory");
}

TEST(Engine, LeavesOtherEnginesAlone) {
  const auto one = load(script("return 'ONE';"));
  auto two = load(script("return 'TWO';"));
  EXPECT_NE(one->workerPid(), two->workerPid());
  EXPECT_EQ(one->evaluate("http://h/", "h").result, "ONE");
  EXPECT_EQ(two->evaluate("http://h/", "h").result, "TWO");
  two.reset();
  EXPECT_EQ(one->evaluate("http://h/", "h").result, "ONE");
}

TEST(Engine, LoadsAMegabyteOfScript) {
  std::string large = script("return 'A';");
  while (large.size() < (1U << 20U)) large += "var padding = 'xxxxxxxxxxxxxxxxxxxxxxxxxxx';\n";
  EXPECT_EQ(load(large)->evaluate("http://h/", "h").result, "A");
}

}  // namespace
