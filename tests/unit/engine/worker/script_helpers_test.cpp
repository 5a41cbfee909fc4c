#include <ctime>

#include "tests/support/once_of_five.h"
#include "tests/unit/engine/worker/engine_fixture.h"

namespace pac_worker {
namespace {

using std::string_literals::operator""s;

class Helpers : public EngineTest {
 protected:
  Helpers() {
    mWorld.names4["v4.test"] = {"10.1.2.3"};
    mWorld.namesAny["v4.test"] = {"10.1.2.3", "2001:db8::1"};
  }
  bool throwsTypeError(const std::string& expression) {
    return value(expression).substr(0, 11) == "!TypeError:";
  }
};

TEST_F(Helpers, IsPlainHostNameWantsAString) {
  EXPECT_EQ(value("isPlainHostName('www')"), "true");
  EXPECT_EQ(value("isPlainHostName('www.a')"), "false");
  for (const std::string other : {"", "null", "undefined", "7", "{}", "new String('www')"})
    EXPECT_TRUE(throwsTypeError("isPlainHostName(" + other + ")")) << other;
}

TEST_F(Helpers, TextHelpersThrowForNullAndConvertOtherValues) {
  for (const std::string call :
       {"dnsDomainIs(null, 'a')", "dnsDomainIs('a', null)", "dnsDomainIs('a')", "dnsDomainIs()",
        "localHostOrDomainIs(null, 'a')", "localHostOrDomainIs('a')", "dnsDomainLevels(null)",
        "dnsDomainLevels()", "convert_addr(null)", "convert_addr()", "dnsDomainIs('a', Symbol())"})
    EXPECT_TRUE(throwsTypeError(call)) << call;
  EXPECT_EQ(value("dnsDomainIs('www.a', '.a')"), "true");
  EXPECT_EQ(value("dnsDomainIs(15, 5)"), "true");
  EXPECT_EQ(value("dnsDomainIs({toString: () => 'www.a'}, '.a')"), "true");
  EXPECT_EQ(value("dnsDomainIs('a', {toString() { throw new RangeError('mine') }})"),
            "!RangeError: mine");
  EXPECT_EQ(value("localHostOrDomainIs('www', 'www.a')"), "true");
  EXPECT_EQ(value("dnsDomainLevels('a.b.c')"), "2");
  EXPECT_EQ(value("convert_addr('192.168.0.1')"), "-1062731775");
}

TEST_F(Helpers, LookupsGiveNullOrFalseForWhatIsNoString) {
  for (const std::string other : {"", "null", "undefined", "7", "{}"}) {
    EXPECT_EQ(value("dnsResolve(" + other + ")"), "null") << other;
    EXPECT_EQ(value("isResolvable(" + other + ")"), "false") << other;
    EXPECT_EQ(value("dnsResolveEx(" + other + ") === ''"), "true") << other;
    EXPECT_EQ(value("isResolvableEx(" + other + ")"), "false") << other;
    EXPECT_EQ(value("isInNet(" + (other.empty() ? other : other + ", '0.0.0.0', '0.0.0.0'") + ")"),
              "false")
        << other;
  }
  EXPECT_TRUE(mWorld.asked.empty());
}

TEST_F(Helpers, LookupsAskTheEnvironment) {
  EXPECT_EQ(value("dnsResolve('v4.test')"), "10.1.2.3");
  EXPECT_EQ(value("dnsResolve('missing.test') === null"), "true");
  EXPECT_EQ(value("dnsResolve('2001:db8::7')"), "2001:db8::7");
  EXPECT_EQ(value("isResolvable('v4.test')"), "true");
  EXPECT_EQ(value("isInNet('v4.test', '10.0.0.0', '255.0.0.0')"), "true");
  EXPECT_EQ(value("isInNet('v4.test', null, '255.0.0.0')"), "false");
  EXPECT_EQ(value("dnsResolveEx('v4.test')"), "10.1.2.3;2001:db8::1");
  EXPECT_EQ(value("dnsResolveEx('missing.test') === ''"), "true");
  EXPECT_EQ(value("isResolvableEx('v4.test')"), "true");
  EXPECT_EQ(value("myIpAddress()"), "127.0.0.1");
  EXPECT_EQ(value("myIpAddressEx() === ''"), "true");
  mWorld.own4 = {"10.0.0.5"};
  mWorld.ownAny = {"10.0.0.5", "2001:db8::5"};
  EXPECT_EQ(value("myIpAddress()"), "10.0.0.5");
  EXPECT_EQ(value("myIpAddressEx()"), "10.0.0.5;2001:db8::5");
}

TEST_F(Helpers, NamesGoOutAsUtf8) {
  EXPECT_EQ(value("dnsResolve('b\\u00fccher.test')"), "null");
  EXPECT_EQ(mWorld.asked, std::vector{"b\u00fccher.test"s});
  EXPECT_EQ(value("dnsResolve('\\ud800.test')"), "null");
  EXPECT_EQ(mWorld.asked.size(), 1U) << "an unpaired surrogate is no character";
}

TEST_F(Helpers, IsInNetExAndSorting) {
  EXPECT_EQ(value("isInNetEx('10.1.2.3', '10.0.0.0/8')"), "true");
  EXPECT_EQ(value("isInNetEx('10.1.2.3', '10.0.0.0/33')"), "false");
  EXPECT_EQ(value("isInNetEx('10.1.2.3')"), "null");
  EXPECT_EQ(value("isInNetEx()"), "null");
  EXPECT_EQ(value("isInNetEx('10.1.2.3', null)"), "false");
  EXPECT_EQ(value("sortIpAddressList('10.0.0.1;::1')"), "::1;10.0.0.1");
  EXPECT_EQ(value("sortIpAddressList('') === false"), "true");
  EXPECT_EQ(value("sortIpAddressList('x') === false"), "true");
  EXPECT_EQ(value("sortIpAddressList()"), "null");
  EXPECT_EQ(value("sortIpAddressList(null)"), "null");
  EXPECT_EQ(value("sortIpAddressList(7)"), "null");
  EXPECT_EQ(value("getClientVersion()"), "1.0");
}

TEST_F(Helpers, DateHelpersTakeNumbersAndStrings) {
  mWorld.setLocal(2026, 7, 15, 12, 30);
  EXPECT_EQ(value("weekdayRange('WED')"), "true");
  EXPECT_EQ(value("weekdayRange('MON', 'TUE')"), "false");
  EXPECT_EQ(value("weekdayRange('WED', 'GMT')"), "true");
  EXPECT_EQ(value("weekdayRange('WED', undefined)"), "false");
  EXPECT_EQ(value("weekdayRange()"), "false");
  EXPECT_EQ(value("dateRange(1, 'JUL', 31, 'JUL')"), "true");
  EXPECT_EQ(value("dateRange('1', 'JUL', '31', 'JUL')"), "true");
  EXPECT_EQ(value("dateRange(null)"), "false");
  EXPECT_EQ(value("dateRange({})"), "false");
  EXPECT_EQ(value("dateRange('GMT')"), "true");
  EXPECT_EQ(value("timeRange(12)"), "true");
  EXPECT_EQ(value("timeRange(12, 31, 12, 40)"), "false");
  EXPECT_TRUE(throwsTypeError("timeRange(1, 2, 3)"));
  EXPECT_TRUE(throwsTypeError("timeRange(1, 2, 3, 4, 5)"));
  EXPECT_EQ(value("dateRange(...Array(5000).fill(1))"), "false");
}

TEST_F(Helpers, ShExpMatchIsAnchoredAndTakesRegularExpressions) {
  EXPECT_EQ(value("shExpMatch('www.a.com', '*.a.com')"), "true");
  EXPECT_EQ(value("shExpMatch('wwwXaXcom', 'www.a.com')"), "false");
  EXPECT_EQ(value("shExpMatch('aaa', 'a+')"), "true");
  EXPECT_EQ(value("shExpMatch('b', '[a-c]')"), "true");
  EXPECT_EQ(value("shExpMatch('a.com', '(a|b).com')"), "true");
  EXPECT_EQ(value("shExpMatch('axcom', '(a|b).com')"), "false");
  EXPECT_EQ(value("shExpMatch('aaa', 'a{3}')"), "true");
  EXPECT_EQ(value("shExpMatch('7', '\\\\d')"), "true");
  EXPECT_EQ(value("shExpMatch('b.com', '*.com$')"), "true");
}

TEST_F(Helpers, ShExpMatchLosesItsAnchorsAtABar) {
  EXPECT_EQ(value("shExpMatch('http://one/path', 'http://one|two')"), "true");
  EXPECT_EQ(value("shExpMatch('xx-two', 'one|two')"), "true");
  EXPECT_EQ(value("shExpMatch('two-xx', 'one|two')"), "false");
}

TEST_F(Helpers, ShExpMatchThrowsForUnbalancedBrackets) {
  for (const std::string bad : {"(", "[", "a)", "(?"})
    EXPECT_EQ(value("shExpMatch('a', '" + bad + "')").substr(0, 13), "!SyntaxError:") << bad;
}

TEST_F(Helpers, ShExpMatchConvertsTheTextOnceAndWantsAnExpression) {
  EXPECT_EQ(value("shExpMatch(null, 'nul?')"), "true");
  EXPECT_EQ(value("shExpMatch(5, '(5)')"), "true");
  EXPECT_TRUE(throwsTypeError("shExpMatch('a', null)"));
  EXPECT_TRUE(throwsTypeError("shExpMatch('a', 7)"));
  EXPECT_TRUE(throwsTypeError("shExpMatch('a')"));
  EXPECT_EQ(load("var n = 0; const text = {toString() { return 'a' + ++n }};"
                 "function FindProxyForURL() {"
                 " return [shExpMatch(text, '(a1)'), shExpMatch(text, 'a2'), n].join() }"),
            "");
  EXPECT_EQ(ask(), "true,true,2");
}

TEST_F(Helpers, ShExpMatchDoesNotDependOnTheScriptsRegExp) {
  EXPECT_EQ(load("RegExp.prototype.exec = RegExp.prototype.test = () => { throw 1 };"
                 "Object.defineProperty(RegExp.prototype, 'flags', {get() { throw 2 }});"
                 "globalThis.RegExp = function () { throw 3 };"
                 "function FindProxyForURL() { return String(shExpMatch('ab', '(a|c)b')) }"),
            "");
  EXPECT_EQ(ask(), "true");
}

TEST_F(Helpers, ShExpMatchHandsLongWorkToTheEngine) {
  EXPECT_EQ(value("shExpMatch('a'.repeat(15e5), '*b') + '' + shExpMatch('a'.repeat(15e5), '*a')"),
            "falsetrue");
}

TEST_F(Helpers, AlertTakesAnythingAndGivesUndefined) {
  EXPECT_EQ(
      value("[alert('text'), alert(), alert(null), alert(7), alert(Symbol('s')),"
            "alert({toString: () => 'object'}), alert('\\ud800')].every(x => x === undefined)"),
      "true");
  EXPECT_EQ(mWorld.alerts, (std::vector{"text"s, "undefined"s, "null"s, "7"s, "Symbol()"s,
                                        "object"s, "\xED\xA0\x80"s}));
}

TEST_F(Helpers, WorkWithoutAReceiverAndAsCallbacks) {
  EXPECT_EQ(value("['a', 'b.c'].map(isPlainHostName)"), "true,false");
  EXPECT_EQ(value("(0, dnsResolve)('10.0.0.1')"), "10.0.0.1");
  EXPECT_TRUE(throwsTypeError("new isPlainHostName('a')"));
}

TEST_F(Helpers, ALookupThatEndsTooLateEndsTheEvaluation) {
  mWorld.onResolve = [] {
    timespec late{0, 300'000'000};
    nanosleep(&late, nullptr);
  };
  onceOfFive([this] {
    mWorld.alerts.clear();
    ScriptLimits limits;
    limits.time = std::chrono::milliseconds(200);
    ASSERT_EQ(load("function FindProxyForURL(url, host) {"
                   "try { dnsResolve(host) } catch { alert('caught') } finally { alert('finally') }"
                   "return 'DIRECT' }",
                   limits),
              "");
    EXPECT_EQ(ask("", "late.test"), "!the time limit of 200 ms was passed");
    EXPECT_TRUE(mWorld.alerts.empty()) << "no code of the script runs after the limit";
    EXPECT_EQ(ask("", "10.0.0.1"), "DIRECT");
  });
}

}  // namespace
}  // namespace pac_worker
