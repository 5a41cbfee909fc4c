#include "engine/worker/script_engine.h"

#include "tests/unit/engine/worker/engine_fixture.h"

namespace pac_worker {
namespace {

using std::string_literals::operator""s;

class Loading : public EngineTest {};
class Answer : public EngineTest {
 protected:
  std::string returning(const std::string& expression) {
    EXPECT_EQ(load("function FindProxyForURL(url, host) { return " + expression + " }"), "");
    return ask();
  }
};

const std::string kDirect = "function FindProxyForURL(url, host) { return 'DIRECT' }";
const std::string kNoEntry = "the script defines no function FindProxyForURL";

TEST_F(Loading, TakesUtf8AndLatin1) {
  const std::string rest = "'.length; function FindProxyForURL() { return String(n) }";
  EXPECT_EQ(load("var n = '\xC3\xA4" + rest), "");
  EXPECT_EQ(ask(), "1");
  EXPECT_EQ(load("\xEF\xBB\xBFvar n = '\xC3\xA4" + rest), "");
  EXPECT_EQ(ask(), "1");
  EXPECT_EQ(load("var n = '\xE4" + rest), "");
  EXPECT_EQ(ask(), "1");
}

TEST_F(Loading, EndsAtANulByte) {
  EXPECT_EQ(load(kDirect + "\0 this is no script"s), "");
  EXPECT_EQ(ask(), "DIRECT");
}

TEST_F(Loading, EndsLinesAtCrLfAndCrlf) {
  for (const std::string end : {"\n", "\r", "\r\n"}) {
    EXPECT_EQ(load("// comment" + end + kDirect), "");
    EXPECT_NE(load("1;" + end + "2;" + end + "3 3;" + end + kDirect), "");
    EXPECT_EQ(mLine, 3U);
  }
}

TEST_F(Loading, TakesHtmlLikeComments) {
  EXPECT_EQ(load("<!-- no proxy\n" + kDirect + "\n--> the end"), "");
  EXPECT_EQ(ask(), "DIRECT");
}

TEST_F(Loading, KnowsTheLanguageUpTo2023) {
  EXPECT_EQ(load(R"(
    "use strict";
    class Rule { #to; static count = 0; constructor(to) { this.#to = to; Rule.count++; }
                 get to() { return this.#to } static { this.ready = true } }
    const rules = new Map([["a", new Rule(`PROXY ${"p"}:1`)]]);
    const found = "2026-07".match(/(?<year>\d+)(?<=26)-/)?.groups.year ?? "none";
    let [first, ...others] = new Set([1, 2, 2]);
    const big = 2n ** 64n;
    const all = [[3], [1]].flat().toSorted().with(0, 9).findLast(x => x > 0);
    others.push(...[Object.hasOwn({x: 1}, "x"), "a-a".replaceAll("a", "b"), [5].at(-1)]);
    async function later() { await 1 } function* many() { yield 1 }
    let unset = null; unset ??= "set"; later(); [...many()]; structured: for (;;) break structured;
    function FindProxyForURL(url, host) {
      return [rules.get("a")?.to, found, first, others, big, all, unset, 1_000,
              Rule.ready].join("|") })"),
            "");
  EXPECT_EQ(ask(), "PROXY p:1|2026|1|2,true,b-b,5|18446744073709551616|3|set|1000|true");
}

TEST_F(Loading, HonoursUseStrict) {
  EXPECT_NE(load("'use strict'; undeclared = 1;" + kDirect), "");
  EXPECT_EQ(load("undeclared = 1;" + kDirect), "");
}

TEST_F(Loading, RunsTheScriptOnceAndKeepsItsGlobals) {
  EXPECT_EQ(load("var n = 0; alert('loaded'); const ip = dnsResolve('a.test');"
                 "let m = 0; function FindProxyForURL() { return ip + '-' + ++n + ++m }"),
            "");
  EXPECT_EQ(ask(), "null-11");
  EXPECT_EQ(ask(), "null-22");
  EXPECT_EQ(mWorld.alerts, std::vector{"loaded"s});
  EXPECT_EQ(mWorld.asked, std::vector{"a.test"s});
}

TEST_F(Loading, FindsTheEntryPointAsAPropertyOfTheGlobalObject) {
  EXPECT_EQ(load("var FindProxyForURL = () => 'arrow'"), "");
  EXPECT_EQ(ask(), "arrow");
  EXPECT_EQ(load("globalThis.FindProxyForURL = function () { return 'set' }"), "");
  EXPECT_EQ(ask(), "set");
  EXPECT_EQ(load("FindProxyForURL = () => 'implicit'"), "");
  EXPECT_EQ(ask(), "implicit");
  EXPECT_EQ(load("const FindProxyForURL = () => 'lexical'"), kNoEntry);
  EXPECT_EQ(load("let FindProxyForURL = () => 'lexical'"), kNoEntry);
  EXPECT_EQ(load("class FindProxyForURL {}"), kNoEntry);
  EXPECT_EQ(load("var FindProxyForURL = 'DIRECT'"), kNoEntry);
  EXPECT_EQ(load(""), kNoEntry);
}

TEST_F(Loading, DoesNotTakeTheExtendedEntryPoint) {
  EXPECT_EQ(load("function FindProxyForURLEx() { return 'ex' }"), kNoEntry);
  EXPECT_EQ(load("function FindProxyForURLEx() { return 'ex' }" + kDirect), "");
  EXPECT_EQ(ask(), "DIRECT");
}

TEST_F(Loading, LetsFunctionAndVarRedefineAHelper) {
  EXPECT_EQ(load("function isPlainHostName() { return 'mine' }"
                 "var dnsDomainIs = () => 'too'; var alert; myIpAddress = 7;"
                 "function FindProxyForURL() { return isPlainHostName() + dnsDomainIs() +"
                 " typeof alert + myIpAddress }"),
            "");
  EXPECT_EQ(ask(), "minetoofunction7");
}

TEST_F(Loading, RefusesLetAndConstOfAHelper) {
  for (const std::string kind : {"let", "const"}) {
    EXPECT_EQ(load(kDirect + "\n" + kind + " shExpMatch = 1").substr(0, 12), "SyntaxError:");
    EXPECT_EQ(load(kDirect + "\n{ " + kind + " shExpMatch = 1 }"), "") << "within a block it may";
  }
  EXPECT_EQ(load(kDirect + "\nclass dateRange {}").substr(0, 12), "SyntaxError:");
  EXPECT_EQ(load(kDirect + "\nlet dnsResolve = 1; class alert {}"), "") << "as in a browser";
}

TEST_F(Loading, ShowsNoHostObjects) {
  EXPECT_EQ(value("[typeof console, typeof require, typeof std, typeof os, typeof setTimeout,"
                  "typeof fetch, typeof process, typeof print, typeof load, typeof scriptArgs,"
                  "typeof XMLHttpRequest, typeof Worker, typeof performance, typeof navigator,"
                  "typeof queueMicrotask, typeof window, typeof bjson, typeof gc].every(t => t ==="
                  "'undefined')"),
            "true");
  // Globals of the language are not enumerable, so only the helpers and the entry point remain.
  EXPECT_EQ(value("Object.keys(globalThis).sort()"),
            "FindProxyForURL,alert,convert_addr,dateRange,dnsDomainIs,dnsDomainLevels,dnsResolve,"
            "dnsResolveEx,getClientVersion,isInNet,isInNetEx,isPlainHostName,isResolvable,"
            "isResolvableEx,isValidIpAddress,localHostOrDomainIs,months,myIpAddress,myIpAddressEx,"
            "shExpMatch,sortIpAddressList,timeRange,wdays,weekdayRange");
}

// PAC scripts in a browser do not have these globals of the engine: `performance`,
// `queueMicrotask`, `atob`, `btoa`, `DOMException` and `InternalError`. If a newer engine has a new
// global, this test fails, and a person compares it with a browser.
TEST_F(Loading, HasTheGlobalNamesOfTheLanguageAlone) {
  EXPECT_EQ(value("Object.getOwnPropertyNames(globalThis).filter(name => "
                  "!Object.keys(globalThis).includes(name)).sort()"),
            "AggregateError,Array,ArrayBuffer,AsyncDisposableStack,Atomics,BigInt,"
            "BigInt64Array,BigUint64Array,Boolean,DataView,Date,DisposableStack,Error,"
            "EvalError,FinalizationRegistry,Float16Array,Float32Array,Float64Array,Function,"
            "Infinity,Int16Array,Int32Array,Int8Array,Iterator,JSON,Map,Math,NaN,Number,"
            "Object,Promise,Proxy,RangeError,ReferenceError,Reflect,RegExp,Set,"
            "SharedArrayBuffer,String,SuppressedError,Symbol,SyntaxError,TypeError,"
            "URIError,Uint16Array,Uint32Array,Uint8Array,Uint8ClampedArray,WeakMap,WeakRef,"
            "WeakSet,decodeURI,decodeURIComponent,encodeURI,encodeURIComponent,escape,eval,"
            "globalThis,isFinite,isNaN,parseFloat,parseInt,undefined,unescape");
}

TEST_F(Loading, CallsTheGlobalObjectAsABrowserDoes) {
  EXPECT_EQ(value("String(globalThis) + Object.getOwnPropertySymbols(globalThis).length"),
            "[object Object]0");
}

TEST_F(Loading, CannotImportModules) {
  EXPECT_EQ(load("var seen = 'pending';"
                 "import('std').then(() => { seen = 'loaded' }, () => { seen = 'refused' });"
                 "function FindProxyForURL() { return seen }"),
            "");
  EXPECT_EQ(ask(), "refused");
  EXPECT_NE(load("import * as std from 'std';" + kDirect), "");
}

TEST_F(Loading, TellsWhyAndWhereItFailed) {
  EXPECT_EQ(load("1;\n2;\nfunction (\n" + kDirect).substr(0, 12), "SyntaxError:");
  EXPECT_EQ(mLine, 3U);
  EXPECT_EQ(load("1;\nmissing();\n" + kDirect), "ReferenceError: missing is not defined");
  EXPECT_EQ(mLine, 2U);
  EXPECT_EQ(load("\n\nthrow new TypeError('not today')"), "TypeError: not today");
  EXPECT_EQ(mLine, 3U);
  EXPECT_EQ(load("class Mine extends Error {}; Mine.prototype.name = 'Mine'; throw new Mine('x')"),
            "Mine: x");
  EXPECT_EQ(load("throw 'text'"), "uncaught exception: text");
  EXPECT_EQ(load("throw null"), "uncaught exception: null");
  EXPECT_EQ(load("throw 42"), "uncaught exception: 42");
  EXPECT_EQ(load("throw Symbol('s')"), "uncaught exception");
  EXPECT_EQ(load("throw {message: 'object'}"), "uncaught exception");
}

TEST_F(Loading, RunsNoCodeToDescribeAnError) {
  const std::string spy = "const spy = () => { alert('ran'); return 'spied' };";
  EXPECT_EQ(load(spy + "throw {toString: spy, get message() { return spy() }}"),
            "uncaught exception");
  EXPECT_EQ(load(spy + "throw new Proxy(new Error('x'), {get: spy, getPrototypeOf: spy,"
                       "getOwnPropertyDescriptor: spy})"),
            "uncaught exception");
  EXPECT_EQ(load(spy + "const e = new Error('x'); for (const p of ['name', 'message', 'stack'])"
                       "Object.defineProperty(e, p, {get: spy}); throw e"),
            "Error");
  EXPECT_EQ(load(spy + "const e = new Error('x'); Object.setPrototypeOf(e, new Proxy({}, {get: spy,"
                       "getPrototypeOf: spy, getOwnPropertyDescriptor: spy})); throw e"),
            "Error: x");
  EXPECT_EQ(load(spy + "const e = new Error(); e.message = {toString: spy}; throw e"), "Error");
  EXPECT_EQ(load("const e = new Error('x'); Object.setPrototypeOf(e, null); throw e"), "Error: x");
  EXPECT_TRUE(mWorld.alerts.empty());
}

TEST_F(Loading, ShowsAnErrorAsOneShortLine) {
  EXPECT_EQ(load("throw new Error('a\\nb\\u0000c\\ud800')"), "Error: a b c?");
  EXPECT_EQ(load("throw new Error('x'.repeat(1e6))").size(), 512U);
  EXPECT_EQ(load("throw '\\u20ac'.repeat(1e6)").size(), 512U);
}

TEST_F(Answer, GetsUrlAndHostAsPrimitiveStrings) {
  EXPECT_EQ(
      load("function FindProxyForURL(url, host) {"
           "return [typeof url, url, typeof host, host, arguments.length, this === globalThis]"
           ".join(' ') }"),
      "");
  EXPECT_EQ(ask("http://a/b?c", "a"), "string http://a/b?c string a 2 true");
  EXPECT_EQ(ask("", ""), "string  string  2 true");
}

TEST_F(Answer, PassesHostsThatAreNoAsciiOn) {
  EXPECT_EQ(load("function FindProxyForURL(url, host) { return String(host.length) }"), "");
  EXPECT_EQ(ask("", "b\u00fccher"), "6");
  EXPECT_EQ(ask("", "a\0b"s), "3");
  EXPECT_EQ(ask("", "\U0001F600"), "2");
  EXPECT_NE(ask("", "\xFF\xFE").front(), '!');
}

TEST_F(Answer, IsAPrimitiveAsciiString) {
  EXPECT_EQ(returning("'PROXY a:1; DIRECT'"), "PROXY a:1; DIRECT");
  EXPECT_EQ(returning("''"), "");
  EXPECT_EQ(returning("'PROXY ' + host + ':' + 80"), "PROXY example.com:80");
  for (const std::string none :
       {"undefined", "null", "7", "true", "{}", "['DIRECT']", "new String('DIRECT')", "10n",
        "Promise.resolve('DIRECT')", "Symbol('DIRECT')", "() => 'DIRECT'"})
    EXPECT_EQ(returning(none), "!the result is no string") << none;
  for (const std::string other : {"'PR\\u00d6XY'", "'\\u20ac'", "'\\ud800'", "'\\u0080'"})
    EXPECT_EQ(returning(other), "!the result is not ASCII") << other;
}

TEST_F(Answer, NeverCallsToString) {
  EXPECT_EQ(returning("{toString() { alert('ran'); return 'DIRECT' }, valueOf() { alert('ran') },"
                      "[Symbol.toPrimitive]() { alert('ran') }}"),
            "!the result is no string");
  EXPECT_TRUE(mWorld.alerts.empty());
}

TEST_F(Answer, IsAtMost64KiB) {
  EXPECT_EQ(returning("'x'.repeat(65536)").size(), 65536U);
  EXPECT_EQ(returning("'x'.repeat(65537)"), "!the result is longer than 65536 bytes");
}

TEST_F(Answer, IsNoneAfterAnException) {
  EXPECT_EQ(load("function FindProxyForURL(url, host) {\n if (host == 'bad')\n"
                 "  throw new RangeError('far');\n return 'DIRECT' }"),
            "");
  EXPECT_EQ(ask("", "bad"), "!RangeError: far");
  EXPECT_EQ(mLine, 3U);
  EXPECT_EQ(ask("", "good"), "DIRECT");
}

TEST_F(Answer, IsNoneWhereTheEntryPointIsTakenAway) {
  EXPECT_EQ(load("function FindProxyForURL() { FindProxyForURL = 1; return 'DIRECT' }"), "");
  EXPECT_EQ(ask(), "DIRECT");
  EXPECT_EQ(ask().substr(0, 11), "!TypeError:");
}

TEST_F(Answer, IsNoneWithoutAScript) {
  EXPECT_NE(load("("), "");
  EXPECT_EQ(ask(), "!no script is loaded");
}

TEST_F(Answer, LetsPromisesSettleBetweenEvaluations) {
  EXPECT_EQ(load("var n = 0; async function later() { await 1; n++ }"
                 "function FindProxyForURL() { later(); return String(n) }"),
            "");
  EXPECT_EQ(ask(), "0");
  EXPECT_EQ(ask(), "1");
}

TEST_F(Answer, IsNotHeldUpByJobsWithoutEnd) {
  EXPECT_EQ(load("var n = 0; function again() { n++; Promise.resolve().then(again) } again();"
                 "function FindProxyForURL() { return String(n) }"),
            "");
  EXPECT_EQ(ask(), "1001") << "the first call, and a thousand jobs after the load";
}

TEST_F(Answer, AlertsUpTo2KiBInAnEvaluation) {
  EXPECT_EQ(load("function FindProxyForURL(url, host) {"
                 "alert('x'.repeat(2000)); alert('y'.repeat(47) + '\\u00e4\\u00e4'); alert('z');"
                 "return 'DIRECT' }"),
            "");
  for (int i = 0; i < 2; ++i) {
    mWorld.alerts.clear();
    EXPECT_EQ(ask(), "DIRECT");
    EXPECT_EQ(mWorld.alerts, (std::vector{std::string(2000, 'x'), std::string(47, 'y')}))
        << "cut between characters, nothing after the cut";
  }
  EXPECT_EQ(load("function FindProxyForURL() { alert('x'.repeat(2048)); alert('y'); return '' }"),
            "");
  mWorld.alerts.clear();
  EXPECT_EQ(ask(), "");
  EXPECT_EQ(mWorld.alerts, std::vector{std::string(2048, 'x')});
}

}  // namespace
}  // namespace pac_worker
