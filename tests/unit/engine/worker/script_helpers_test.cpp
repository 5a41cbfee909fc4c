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

TEST_F(Helpers, TextHelpersUseTheArgumentsOwnMethods) {
  for (const std::string call :
       {"dnsDomainIs(null, 'a')", "dnsDomainIs('a', null)", "dnsDomainIs('a')", "dnsDomainIs()",
        "dnsDomainIs([1], '')", "localHostOrDomainIs('a')", "localHostOrDomainIs('a', 7)",
        "dnsDomainLevels(null)", "dnsDomainLevels()", "dnsDomainLevels(7)", "convert_addr(null)",
        "convert_addr()", "convert_addr(7)"})
    EXPECT_TRUE(throwsTypeError(call)) << call;
  EXPECT_EQ(value("dnsDomainIs('www.a', '.a')"), "true");
  EXPECT_EQ(value("dnsDomainIs(15, 5)"), "false") << "numbers have no length";
  EXPECT_EQ(value("dnsDomainIs(new String('www.a'), new String('.a'))"), "true");
  EXPECT_EQ(value("dnsDomainIs('a', {length: 1, toString() { throw new RangeError('mine') }})"),
            "!RangeError: mine");
  EXPECT_EQ(value("dnsDomainIs('\\ud83d\\ude00', '\\ude00')"), "true") << "half a character";
  EXPECT_EQ(value("localHostOrDomainIs('www', 'www.a')"), "true");
  EXPECT_EQ(value("localHostOrDomainIs()"), "true");
  EXPECT_EQ(value("dnsDomainLevels('a.b.c')"), "2");
}

TEST_F(Helpers, ConvertAddrGivesTheSignedNumber) {
  EXPECT_EQ(value("convert_addr('192.168.0.1')"), "-1062731775");
  EXPECT_EQ(value("convert_addr('255.255.255.255')"), "-1");
  EXPECT_EQ(value("convert_addr('256.257.0.511')"), "65791") << "modulo 256";
  EXPECT_EQ(value("convert_addr('10')"), "167772160") << "missing fields are 0";
  EXPECT_EQ(value("convert_addr('a.-1. 9 .0x10')"), "16714000");
}

TEST_F(Helpers, IsValidIpAddressTakesFourDecimalFields) {
  for (const std::string good : {"10.0.0.1", "010.000.000.009", "255.255.255.255"})
    EXPECT_EQ(value("isValidIpAddress('" + good + "')"), "true") << good;
  for (const std::string bad : {"", "10.0.0", "256.0.0.0", "0x1.0.0.0", "1.2.3.4 ", "::1"})
    EXPECT_EQ(value("isValidIpAddress('" + bad + "')"), "false") << bad;
  EXPECT_EQ(value("isValidIpAddress(['10.0.0.1'])"), "true");
  EXPECT_TRUE(throwsTypeError("isValidIpAddress(Symbol())"));
}

TEST_F(Helpers, LookupsOfWhatIsNoString) {
  for (const std::string other : {"", "null", "undefined", "7", "{}"}) {
    EXPECT_EQ(value("dnsResolve(" + other + ")"), "null") << other;
    EXPECT_EQ(value("isResolvable(" + other + ")"), "false") << other;
    EXPECT_EQ(value("dnsResolveEx(" + other + ")"), "undefined") << other;
    EXPECT_EQ(value("isResolvableEx(" + other + ")"), "true") << other;
    EXPECT_EQ(value("isInNet(" + (other.empty() ? other : other + ", '0.0.0.0', '0.0.0.0'") + ")"),
              "false")
        << other;
  }
  EXPECT_TRUE(mWorld.asked.empty());
}

TEST_F(Helpers, FollowTheScriptsOwnGlobals) {
  EXPECT_EQ(
      load("function dnsResolve(host) { return host == 'mine' ? '10.9.9.9' : [1] }"
           "dnsResolveEx = () => ''; wdays.SAT = 0; delete wdays.SUN;"
           "Date = class extends Date { getDay() { return 0 } };"
           "function FindProxyForURL() {"
           "  return [isInNet('mine', '10.9.9.9', '255.255.255.255'), isResolvable('x'),"
           "    isResolvableEx('10.0.0.1'), weekdayRange('SAT'), weekdayRange('SUN')].join() }"),
      "");
  EXPECT_EQ(ask(), "true,true,false,true,false");
  EXPECT_EQ(
      load("dnsResolve = host => ({split: () => [10, 1, 2, 3]});"
           "function FindProxyForURL() { return '' + isInNet('x', '10.1.2.0', '255.255.255.0') }"),
      "");
  EXPECT_EQ(ask(), "true") << "convert_addr has the last word on what a name is resolved to";
}

TEST_F(Helpers, AStoppedClockIsTheScriptsToo) {
  mWorld.clock = 1'700'000'000;
  EXPECT_EQ(value("[Date.now(), +new Date(), new Date() instanceof Date, new Date(5).getTime(),"
                  "Date() === new Date().toString(), new Date().constructor === Date,"
                  "+new (class extends Date {})()].join()"),
            "1700000000000,1700000000000,true,5,true,true,1700000000000");
  mWorld.clock.reset();
  EXPECT_EQ(value("Math.abs(Date.now() - new Date()) < 60000 && Date.now() > 1.7e12"), "true");
}

// A script can see this order if it passes its own object with toString() and split() as the host.
TEST_F(Helpers, IsInNetReadsTheAddressThenThePatternThenTheMask) {
  const std::string functions =
      "var log = '', dnsResolve = () => { log += 'r'; return '1.2.3.4' };"
      "function part(name, text) { return { toString() { log += name; return text },"
      "  split(dot) { log += name.toUpperCase(); return text.split(dot) } } }"
      "function FindProxyForURL(url, host) {"
      "  log = ''; isInNet(part('h', host), part('p', '1.2.3.4'), part('m', '255.0.0.0'));"
      "  return log }";
  EXPECT_EQ(load(functions), "");
  EXPECT_EQ(ask("http://h/", "1.2.3.4"), "pmhHPM");
  EXPECT_EQ(ask("http://h/", "x.test"), "pmhrPM");
}

TEST_F(Helpers, HaveTheLengthsAndTheOrderOfABrowser) {
  EXPECT_EQ(value("Object.keys(globalThis).filter(name => typeof globalThis[name] == 'function')"
                  ".map(name => name + globalThis[name].length).join(' ')"),
            "alert0 myIpAddress0 dnsResolve0 isPlainHostName0 dnsResolveEx0 myIpAddressEx0 "
            "sortIpAddressList0 isInNetEx0 getClientVersion0 dnsDomainIs2 dnsDomainLevels1 "
            "isValidIpAddress1 convert_addr1 isInNet3 isResolvable1 localHostOrDomainIs2 "
            "shExpMatch2 weekdayRange0 dateRange0 timeRange0 isResolvableEx1 FindProxyForURL2");
  EXPECT_EQ(value("Object.keys(globalThis).slice(-8).join()"),
            "shExpMatch,wdays,months,weekdayRange,dateRange,timeRange,isResolvableEx,"
            "FindProxyForURL");
}

TEST_F(Helpers, LookupsAskTheEnvironment) {
  EXPECT_EQ(value("dnsResolve('v4.test')"), "10.1.2.3");
  EXPECT_EQ(value("dnsResolve('missing.test') === null"), "true");
  EXPECT_EQ(value("dnsResolve('2001:db8::7')"), "null");
  EXPECT_EQ(value("isResolvable('v4.test')"), "true");
  EXPECT_EQ(value("isInNet('v4.test', '10.0.0.0', '255.0.0.0')"), "true");
  EXPECT_EQ(value("isInNet('v4.test', null, '255.0.0.0')"), "false");
  EXPECT_EQ(value("dnsResolveEx('v4.test')"), "10.1.2.3;2001:db8::1");
  EXPECT_EQ(value("dnsResolveEx('missing.test') === ''"), "true");
  EXPECT_EQ(value("isResolvableEx('v4.test')"), "true");
  EXPECT_EQ(value("myIpAddress()"), "127.0.0.1");
  EXPECT_EQ(value("myIpAddressEx()"), "127.0.0.1");
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
  EXPECT_EQ(value("isInNetEx('10.1.2.3', null)"), "null");
  EXPECT_EQ(value("isInNetEx('10.1.2.3', 'x')"), "false");
  EXPECT_EQ(value("sortIpAddressList('10.0.0.1;::1')"), "::1;10.0.0.1");
  EXPECT_EQ(value("sortIpAddressList('') === false"), "true");
  EXPECT_EQ(value("sortIpAddressList('x') === false"), "true");
  EXPECT_EQ(value("sortIpAddressList('\\u00e9')"), "null");
  EXPECT_EQ(value("sortIpAddressList()"), "null");
  EXPECT_EQ(value("sortIpAddressList(null)"), "null");
  EXPECT_EQ(value("sortIpAddressList(7)"), "null");
  EXPECT_EQ(value("getClientVersion()"), "1.0");
}

TEST_F(Helpers, DateHelpersTakeWhateverConverts) {
  setenv("TZ", "UTC", 1);
  tzset();
  mWorld.setLocal(2026, 7, 15, 12, 30);
  EXPECT_EQ(value("weekdayRange('WED', new String('GMT'))"), "true") << "loosely equal";
  EXPECT_EQ(value("weekdayRange('WED', undefined)"), "false");
  EXPECT_EQ(value("weekdayRange(['WED'])"), "true");
  EXPECT_EQ(value("dateRange('1', 'JUL', '31x', 'JUL')"), "true");
  EXPECT_EQ(value("dateRange(null)"), "false");
  EXPECT_EQ(value("timeRange('12')"), "true");
  EXPECT_EQ(value("timeRange(12, 31, 12, 40)"), "false");
  EXPECT_EQ(value("timeRange(1, 2, 3)"), "!uncaught exception: timeRange: bad number of arguments");
  EXPECT_TRUE(throwsTypeError("weekdayRange(Symbol(), Object.create(null))"));
  EXPECT_EQ(value("dateRange(...Array(5000).fill(1))"), "true") << "1 January to 1 December";
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

TEST_F(Helpers, ShExpMatchConvertsTheTextOnceAndNeedsAnExpression) {
  EXPECT_EQ(value("shExpMatch(null, 'nul?')"), "true");
  EXPECT_EQ(value("shExpMatch(5, '(5)')"), "true");
  EXPECT_EQ(value("shExpMatch('a', {replace: () => 'a.*'})"), "false");
  EXPECT_TRUE(throwsTypeError("shExpMatch('a', null)"));
  EXPECT_TRUE(throwsTypeError("shExpMatch('a', 7)"));
  EXPECT_TRUE(throwsTypeError("shExpMatch('a')"));
  EXPECT_EQ(load("var n = 0; const text = {toString() { return 'a' + ++n }};"
                 "function FindProxyForURL() {"
                 " return [shExpMatch(text, '(a1)'), shExpMatch(text, 'a2'), n].join() }"),
            "");
  EXPECT_EQ(ask(), "true,true,2");
}

TEST_F(Helpers, ShExpMatchHandsLongWorkToTheEngine) {
  EXPECT_EQ(value("shExpMatch('a'.repeat(15e5), '*b') + '' + shExpMatch('a'.repeat(15e5), '*a')"),
            "falsetrue");
}

TEST_F(Helpers, AlertTakesWhateverConvertsAndGivesUndefined) {
  EXPECT_EQ(value("[alert('text'), alert(), alert(null), alert(7),"
                  "alert({toString: () => 'object'}), alert('\\ud800')]"
                  ".every(x => x === undefined)"),
            "true");
  EXPECT_EQ(mWorld.alerts,
            (std::vector{"text"s, "undefined"s, "null"s, "7"s, "object"s, "\xED\xA0\x80"s}));
  EXPECT_TRUE(throwsTypeError("alert(Symbol('s'))"));
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
