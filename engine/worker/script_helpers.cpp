#include "engine/worker/script_helpers.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <new>
#include <optional>
#include <span>
#include <string_view>

#include "base/ascii.h"
#include "base/utf8.h"
#include "engine/worker/address_text.h"
#include "engine/worker/own_scripts.h"
#include "engine/worker/pac_functions.h"
#include "engine/worker/shell_expression.h"
#include "engine/worker/utf8.h"

namespace pac_worker {
namespace {

// Maximum number of steps of shExpMatch's native matching, which cannot be interrupted. This number
// of steps takes only milliseconds.
constexpr std::size_t kNativeMatchSteps = 4U << 20U;

struct Call {
  JSContext* context;
  std::span<JSValueConst> arguments;

  [[nodiscard]] JSValueConst operator[](std::size_t index) const {
    return index < arguments.size() ? arguments[index] : JS_UNDEFINED;
  }
  [[nodiscard]] bool isText(std::size_t index) const { return JS_IsString((*this)[index]); }
  [[nodiscard]] PacEnvironment& environment() const {
    return EngineRuntime::of(context).environment();
  }
};

JSValue truth(bool value) {
  return value ? JS_TRUE : JS_FALSE;
}

JSValue textValue(const Call& call, std::string_view text) {
  return JS_NewStringLen(call.context, text.data(), text.size());
}

// Evaluates one of our own scripts. @return its value, or JS_EXCEPTION
template <std::size_t kSize>
JSValue evaluated(JSContext* context, const char (&script)[kSize], const char* name) {
  return JS_Eval(context, script, kSize - 1, name, JS_EVAL_TYPE_GLOBAL);
}

// Calls the helper of helpers.js with these arguments. Most scripts never need such a helper, so
// the file is compiled at the first call.
JSValue general(const Call& call, const char* name) {
  JSValue& helpers = EngineRuntime::of(call.context).generalHelpers();
  if (JS_IsUndefined(helpers)) {
    const JSValue object = evaluated(call.context, kHelpersScript, "helpers.js");
    if (JS_IsException(object)) return JS_EXCEPTION;
    helpers = object;
  }
  const Value function(call.context, JS_GetPropertyStr(call.context, helpers, name));
  if (function.isException()) return JS_EXCEPTION;
  return JS_Call(call.context, function.get(), helpers, static_cast<int>(call.arguments.size()),
                 call.arguments.data());
}

template <const char* kName>
JSValue generalHelper(const Call& call) {
  return general(call, kName);
}

// The first two arguments, if both are strings.
struct TwoTexts {
  explicit TwoTexts(const Call& call)
      : strings(call.isText(0) && call.isText(1)),
        first(call.context, strings ? call[0] : JS_UNDEFINED),
        second(call.context, strings ? call[1] : JS_UNDEFINED) {}
  [[nodiscard]] bool failed() const { return !first || !second; }
  // If both texts are ASCII, each of their bytes is one character of the language.
  [[nodiscard]] bool areAscii() const {
    return strings && base::isAscii(first.view()) && base::isAscii(second.view());
  }

  const bool strings;
  const Text first;
  const Text second;
};

// Whether a text begins or ends with another text is the same in UTF-8 and in the language's
// UTF-16. There is one exception: an end that begins with the second half of a surrogate pair. The
// first byte of such an end is 0xED.
bool mayBeginInsideOfAPair(std::string_view end) {
  return !end.empty() && end.front() == '\xED';
}

template <bool (*kFunction)(std::string_view, std::string_view), const char* kName>
JSValue twoTextsHelper(const Call& call) {
  const TwoTexts texts(call);
  if (texts.failed()) return JS_EXCEPTION;
  if (!texts.strings || mayBeginInsideOfAPair(texts.second.view())) return general(call, kName);
  return truth(kFunction(texts.first.view(), texts.second.view()));
}

JSValue shExpMatchHelper(const Call& call) {
  const TwoTexts texts(call);
  if (texts.failed()) return JS_EXCEPTION;
  const std::string_view text = texts.first.view();
  const std::string_view expression = texts.second.view();
  if (!texts.strings || !isPlainShellExpression(expression) ||
      (text.size() + 1) * (expression.size() + 1) > kNativeMatchSteps)
    return general(call, "shExpMatch");
  if (texts.areAscii()) return truth(matchesShellExpression(text, expression));
  return truth(matchesShellExpression(utf16Units(text), utf16Units(expression)));
}

// Calls the global function `name`: our helper, or a function with which the script has replaced
// it.
JSValue callGlobal(const Call& call, const char* name, JSValueConst argument) {
  const Value global(call.context, JS_GetGlobalObject(call.context));
  const Value function(call.context, JS_GetPropertyStr(call.context, global.get(), name));
  if (function.isException()) return JS_EXCEPTION;
  JSValueConst arguments[] = {argument};
  return JS_Call(call.context, function.get(), JS_UNDEFINED, 1, arguments);
}

// An address for a comparison in isInNet: a dotted quad, else the result of convert_addr.
std::optional<std::uint32_t> quadOf(const Call& call, JSValueConst address) {
  if (JS_IsString(address)) {
    const Text text(call.context, address);
    if (!text) return std::nullopt;
    if (const std::optional<std::uint32_t> quad = parseQuad(text.view())) return quad;
  }
  const Value number(call.context, callGlobal(call, "convert_addr", address));
  std::int32_t quad = 0;
  if (number.isException() || JS_ToInt32(call.context, &quad, number.get()) < 0)
    return std::nullopt;
  return static_cast<std::uint32_t>(quad);
}

JSValue isInNetHelper(const Call& call) {
  if (!call.isText(0) || !call.isText(1) || !call.isText(2)) return general(call, "isInNet");
  const Text host(call.context, call[0]);
  const Text pattern(call.context, call[1]);
  const Text mask(call.context, call[2]);
  if (!host || !pattern || !mask) return JS_EXCEPTION;
  const std::optional<std::uint32_t> wanted = parseQuad(pattern.view());
  const std::optional<std::uint32_t> bits = parseQuad(mask.view());
  if (!wanted || !bits) return JS_FALSE;
  std::optional<std::uint32_t> quad = parseQuad(host.view());
  if (!quad) {
    const Value address(call.context, callGlobal(call, "dnsResolve", call[0]));
    if (JS_IsNull(address.get()) || JS_IsUndefined(address.get())) return JS_FALSE;
    if (!address.isException()) quad = quadOf(call, address.get());
    if (!quad) return JS_EXCEPTION;
  }
  return truth(((*quad ^ *wanted) & *bits) == 0);
}

JSValue isPlainHostNameHelper(const Call& call) {
  if (!call.isText(0)) return JS_ThrowTypeError(call.context, "isPlainHostName needs a string");
  const Text host(call.context, call[0]);
  return host ? truth(isPlainHostName(host.view())) : JS_EXCEPTION;
}

JSValue dnsDomainLevelsHelper(const Call& call) {
  if (!call.isText(0)) return general(call, "dnsDomainLevels");
  const Text host(call.context, call[0]);
  if (!host) return JS_EXCEPTION;
  return JS_NewInt64(call.context, static_cast<std::int64_t>(dnsDomainLevels(host.view())));
}

JSValue dnsResolveHelper(const Call& call) {
  if (!call.isText(0)) return JS_NULL;
  const Text host(call.context, call[0]);
  if (!host) return JS_EXCEPTION;
  const std::optional<std::string> address = dnsResolve(call.environment(), host.view());
  return address ? textValue(call, *address) : JS_NULL;
}

JSValue dnsResolveExHelper(const Call& call) {
  if (!call.isText(0)) return JS_UNDEFINED;
  const Text host(call.context, call[0]);
  if (!host) return JS_EXCEPTION;
  // No host name contains an unpaired surrogate, so such a text is not looked up.
  if (!base::isUtf8(host.view())) return JS_UNDEFINED;
  return textValue(call, dnsResolveEx(call.environment(), host.view()));
}

JSValue isInNetExHelper(const Call& call) {
  if (!call.isText(0) || !call.isText(1)) return JS_NULL;
  const Text address(call.context, call[0]);
  const Text prefix(call.context, call[1]);
  if (!address || !prefix) return JS_EXCEPTION;
  return truth(liesInPrefix(address.view(), prefix.view()));
}

template <std::string (*kFunction)(PacEnvironment&)>
JSValue ownAddressHelper(const Call& call) {
  return textValue(call, kFunction(call.environment()));
}

JSValue sortIpAddressListHelper(const Call& call) {
  if (!call.isText(0)) return JS_NULL;
  const Text list(call.context, call[0]);
  if (!list) return JS_EXCEPTION;
  if (!base::isAscii(list.view())) return JS_NULL;
  const std::optional<std::string> sorted = sortIpAddressList(std::string(list.view()));
  return sorted ? textValue(call, *sorted) : JS_FALSE;
}

JSValue getClientVersionHelper(const Call& call) {
  return textValue(call, kClientVersion);
}

JSValue alertHelper(const Call& call) {
  const Text text(call.context, call[0]);
  if (!text) return JS_EXCEPTION;
  EngineRuntime::of(call.context).alert(text.view());
  return JS_UNDEFINED;
}

// Returns the result of a helper, or ends the script if its time is up. Lookups and long texts take
// time outside the engine, and during this time the engine cannot read the clock.
template <bool kWaits>
JSValue endedInTime(const Call& call, JSValue result) {
  JSContext* const context = call.context;
  EngineRuntime& runtime = EngineRuntime::of(context);
  if (!kWaits && !runtime.hasWorkedLong()) return result;
  if (!runtime.timeIsUp()) return result;
  JS_FreeValue(context, result);
  JS_ThrowInternalError(context, "interrupted");
  const JSValue error = JS_GetException(context);
  JS_SetUncatchableError(context, error);
  return JS_Throw(context, error);
}

template <JSValue (*kHelper)(const Call&), bool kWaits>
JSValue entry(JSContext* context, JSValueConst /*self*/, int count, JSValueConst* arguments) {
  const Call call{context, {arguments, static_cast<std::size_t>(count)}};
  try {
    return endedInTime<kWaits>(call, kHelper(call));
  } catch (const std::bad_alloc&) {
    return JS_ThrowOutOfMemory(context);
  }
}

constexpr char kDnsDomainIs[] = "dnsDomainIs";
constexpr char kLocalHostOrDomainIs[] = "localHostOrDomainIs";
constexpr char kIsValidIpAddress[] = "isValidIpAddress";
constexpr char kConvertAddr[] = "convert_addr";
constexpr char kIsResolvable[] = "isResolvable";
constexpr char kIsResolvableEx[] = "isResolvableEx";
constexpr char kWeekdayRange[] = "weekdayRange";
constexpr char kDateRange[] = "dateRange";
constexpr char kTimeRange[] = "timeRange";

struct Helper {
  const char* name;
  int length;  ///< the function object's length, as in a browser
  JSCFunction* function;
};

template <JSValue (*kHelper)(const Call&)>
constexpr JSCFunction* kPure = entry<kHelper, false>;
template <JSValue (*kHelper)(const Call&)>
constexpr JSCFunction* kWaiting = entry<kHelper, true>;

// The helpers that a browser itself implements. `let` and `const` may redefine such a name, so the
// property must be configurable.
constexpr Helper kNative[] = {
    {"alert", 0, kPure<alertHelper>},
    {"myIpAddress", 0, kWaiting<ownAddressHelper<myIpAddress>>},
    {"dnsResolve", 0, kWaiting<dnsResolveHelper>},
    {"isPlainHostName", 0, kPure<isPlainHostNameHelper>},
    {"dnsResolveEx", 0, kWaiting<dnsResolveExHelper>},
    {"myIpAddressEx", 0, kWaiting<ownAddressHelper<myIpAddressEx>>},
    {"sortIpAddressList", 0, kPure<sortIpAddressListHelper>},
    {"isInNetEx", 0, kPure<isInNetExHelper>},
    {"getClientVersion", 0, kPure<getClientVersionHelper>},
};

// The helpers that behave like declarations of the script: `function` and `var` may declare the
// name again, `let` and `const` may not.
constexpr Helper kDeclared[] = {
    {kDnsDomainIs, 2, kPure<twoTextsHelper<dnsDomainIs, kDnsDomainIs>>},
    {"dnsDomainLevels", 1, kPure<dnsDomainLevelsHelper>},
    {kIsValidIpAddress, 1, kPure<generalHelper<kIsValidIpAddress>>},
    {kConvertAddr, 1, kPure<generalHelper<kConvertAddr>>},
    {"isInNet", 3, kPure<isInNetHelper>},
    {kIsResolvable, 1, kPure<generalHelper<kIsResolvable>>},
    {kLocalHostOrDomainIs, 2, kPure<twoTextsHelper<localHostOrDomainIs, kLocalHostOrDomainIs>>},
    {"shExpMatch", 2, kPure<shExpMatchHelper>},
};

// The declared helpers that come after the tables `wdays` and `months`, because a script can see
// the order of the globals.
constexpr Helper kDeclaredLast[] = {
    {kWeekdayRange, 0, kPure<generalHelper<kWeekdayRange>>},
    {kDateRange, 0, kPure<generalHelper<kDateRange>>},
    {kTimeRange, 0, kPure<generalHelper<kTimeRange>>},
    {kIsResolvableEx, 1, kPure<generalHelper<kIsResolvableEx>>},
};

constexpr const char* kWeekdays[] = {"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"};
constexpr const char* kMonths[] = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN",
                                   "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};

constexpr int kAsDeclared = JS_PROP_WRITABLE | JS_PROP_ENUMERABLE;

bool defineAll(JSContext* context, JSValueConst global, std::span<const Helper> helpers,
               int flags) {
  return std::all_of(helpers.begin(), helpers.end(), [&](const Helper& helper) {
    const JSValue function = JS_NewCFunction(context, helper.function, helper.name, helper.length);
    return JS_DefinePropertyValueStr(context, global, helper.name, function, flags) >= 0;
  });
}

// Makes a global object that maps each of `names` to its number.
bool defineNumbers(JSContext* context, JSValueConst global, const char* table,
                   std::span<const char* const> names) {
  const JSValue object = JS_NewObject(context);
  if (JS_IsException(object)) return false;
  for (std::size_t i = 0; i < names.size(); ++i)
    if (JS_DefinePropertyValueStr(context, object, names[i],
                                  JS_NewInt32(context, static_cast<std::int32_t>(i)),
                                  JS_PROP_C_W_E) < 0) {
      JS_FreeValue(context, object);
      return false;
    }
  return JS_DefinePropertyValueStr(context, global, table, object, kAsDeclared) >= 0;
}

JSValue stoppedClock(const Call& call) {
  return JS_NewInt64(call.context, call.environment().stoppedClock().value_or(0));
}

// Gives the script the environment's time instead of the clock's time.
bool stopClock(JSContext* context) {
  const Value replace(context, evaluated(context, kClockScript, "clock.js"));
  const Value clock(context, JS_NewCFunction(context, kPure<stoppedClock>, "", 0));
  if (replace.isException() || clock.isException()) return false;
  JSValueConst arguments[] = {clock.get()};
  const Value done(context, JS_Call(context, replace.get(), JS_UNDEFINED, 1, arguments));
  return !done.isException();
}

}  // namespace

bool defineHelpers(EngineRuntime& runtime) {
  JSContext* const context = runtime.context();
  const Value global(context, JS_GetGlobalObject(context));
  if (runtime.environment().stoppedClock() && !stopClock(context)) return false;
  return defineAll(context, global.get(), kNative, JS_PROP_C_W_E) &&
         defineAll(context, global.get(), kDeclared, kAsDeclared) &&
         defineNumbers(context, global.get(), "wdays", kWeekdays) &&
         defineNumbers(context, global.get(), "months", kMonths) &&
         defineAll(context, global.get(), kDeclaredLast, kAsDeclared);
}

}  // namespace pac_worker
