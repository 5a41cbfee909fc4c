#include "engine/worker/script_helpers.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/worker/pac_dates.h"
#include "engine/worker/pac_functions.h"
#include "engine/worker/shell_expression.h"
#include "engine/worker/utf8.h"

namespace pac_worker {
namespace {

// No date helper takes more arguments, and none a longer text; what is longer means nothing.
constexpr std::size_t kMostRangeArguments = 8;
constexpr std::size_t kLongestRangeText = 16;

// Up to here shExpMatch's own matching, which cannot be interrupted, is sure to end in
// milliseconds.
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

// An argument that must not be null, undefined or missing; a false Text has an exception pending.
Text wanted(const Call& call, std::size_t index) {
  const JSValueConst value = call[index];
  if (JS_IsNull(value) || JS_IsUndefined(value))
    JS_ThrowTypeError(call.context, "argument %zu is null or missing", index + 1);
  else
    return {call.context, value};
  return {call.context, JS_EXCEPTION};
}

JSValue isPlainHostNameHelper(const Call& call) {
  if (!call.isText(0)) return JS_ThrowTypeError(call.context, "isPlainHostName wants a string");
  const Text host = wanted(call, 0);
  return host ? truth(isPlainHostName(host.view())) : JS_EXCEPTION;
}

JSValue dnsDomainIsHelper(const Call& call) {
  const Text host = wanted(call, 0);
  if (!host) return JS_EXCEPTION;
  const Text domain = wanted(call, 1);
  return domain ? truth(dnsDomainIs(host.view(), domain.view())) : JS_EXCEPTION;
}

JSValue localHostOrDomainIsHelper(const Call& call) {
  const Text host = wanted(call, 0);
  if (!host) return JS_EXCEPTION;
  const Text hostdom = wanted(call, 1);
  return hostdom ? truth(localHostOrDomainIs(host.view(), hostdom.view())) : JS_EXCEPTION;
}

JSValue dnsDomainLevelsHelper(const Call& call) {
  const Text host = wanted(call, 0);
  if (!host) return JS_EXCEPTION;
  return JS_NewInt64(call.context, static_cast<std::int64_t>(dnsDomainLevels(host.view())));
}

template <bool (*kFunction)(PacEnvironment&, std::string_view)>
JSValue isResolvableHelper(const Call& call) {
  if (!call.isText(0)) return JS_FALSE;
  const Text host = wanted(call, 0);
  return host ? truth(kFunction(call.environment(), host.view())) : JS_EXCEPTION;
}

JSValue dnsResolveHelper(const Call& call) {
  if (!call.isText(0)) return JS_NULL;
  const Text host = wanted(call, 0);
  if (!host) return JS_EXCEPTION;
  const std::optional<std::string> address = dnsResolve(call.environment(), host.view());
  return address ? textValue(call, *address) : JS_NULL;
}

JSValue dnsResolveExHelper(const Call& call) {
  if (!call.isText(0)) return textValue(call, "");
  const Text host = wanted(call, 0);
  return host ? textValue(call, dnsResolveEx(call.environment(), host.view())) : JS_EXCEPTION;
}

JSValue isInNetHelper(const Call& call) {
  if (!call.isText(0) || !call.isText(1) || !call.isText(2)) return JS_FALSE;
  const Text host = wanted(call, 0);
  if (!host) return JS_EXCEPTION;
  const Text pattern = wanted(call, 1);
  if (!pattern) return JS_EXCEPTION;
  const Text mask = wanted(call, 2);
  if (!mask) return JS_EXCEPTION;
  return truth(isInNet(call.environment(), host.view(), pattern.view(), mask.view()));
}

JSValue isInNetExHelper(const Call& call) {
  if (call.arguments.size() < 2) return JS_NULL;
  if (!call.isText(0) || !call.isText(1)) return JS_FALSE;
  const Text address = wanted(call, 0);
  if (!address) return JS_EXCEPTION;
  const Text prefix = wanted(call, 1);
  return prefix ? truth(isInNetEx(address.view(), prefix.view())) : JS_EXCEPTION;
}

JSValue convertAddrHelper(const Call& call) {
  const Text text = wanted(call, 0);
  return text ? JS_NewInt32(call.context, convertAddr(text.view())) : JS_EXCEPTION;
}

template <std::string (*kFunction)(PacEnvironment&)>
JSValue ownAddressHelper(const Call& call) {
  return textValue(call, kFunction(call.environment()));
}

JSValue sortIpAddressListHelper(const Call& call) {
  if (!call.isText(0)) return JS_NULL;
  const Text list = wanted(call, 0);
  if (!list) return JS_EXCEPTION;
  const std::optional<std::string> sorted = sortIpAddressList(list.view());
  return sorted ? textValue(call, *sorted) : JS_FALSE;
}

JSValue getClientVersionHelper(const Call& call) {
  return textValue(call, kClientVersion);
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80U; });
}

JSValue matchAsRegExp(const Call& call, JSValueConst text, std::string_view expression) {
  const EngineRuntime& runtime = EngineRuntime::of(call.context);
  const Value pattern(call.context, textValue(call, shellExpressionAsRegExp(expression)));
  if (pattern.isException()) return JS_EXCEPTION;
  JSValueConst patterns[] = {pattern.get()};
  const Value regExp(call.context,
                     JS_CallConstructor(call.context, runtime.regExpConstructor(), 1, patterns));
  if (regExp.isException()) return JS_EXCEPTION;
  JSValueConst texts[] = {text};
  const Value found(call.context,
                    JS_Call(call.context, runtime.regExpExec(), regExp.get(), 1, texts));
  return found.isException() ? JS_EXCEPTION : truth(!JS_IsNull(found.get()));
}

JSValue shExpMatchHelper(const Call& call) {
  if (!call.isText(1)) return JS_ThrowTypeError(call.context, "shExpMatch wants an expression");
  // Once, as an object's toString may run: the regular expression must see the same text.
  const Value string(call.context, JS_ToString(call.context, call[0]));
  if (string.isException()) return JS_EXCEPTION;
  const Text text(call.context, string.get());
  if (!text) return JS_EXCEPTION;
  const Text expression = wanted(call, 1);
  if (!expression) return JS_EXCEPTION;
  if (!isPlainShellExpression(expression.view()) ||
      (text.view().size() + 1) * (expression.view().size() + 1) > kNativeMatchSteps)
    return matchAsRegExp(call, string.get(), expression.view());
  if (isAscii(text.view()) && isAscii(expression.view()))
    return truth(matchesShellExpression(text.view(), expression.view()));
  return truth(matchesShellExpression(utf16Units(text.view()), utf16Units(expression.view())));
}

// Numbers and strings mean something to the date helpers, the text of anything else never does.
std::optional<std::vector<RangeArgument>> rangeArguments(const Call& call) {
  std::vector<RangeArgument> arguments;
  const std::size_t count = std::min(call.arguments.size(), kMostRangeArguments);
  arguments.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    if (JS_IsNumber(call[i])) {
      double number = 0;
      JS_ToFloat64(call.context, &number, call[i]);
      arguments.emplace_back(number);
    } else if (call.isText(i)) {
      const Text text = wanted(call, i);
      if (!text) return std::nullopt;
      const bool known = text.view().size() <= kLongestRangeText;
      arguments.emplace_back(std::string(known ? text.view() : ""));
    } else {
      arguments.emplace_back(std::string());
    }
  }
  return arguments;
}

template <bool (*kFunction)(PacEnvironment&, std::span<const RangeArgument>)>
JSValue rangeHelper(const Call& call) {
  const std::optional<std::vector<RangeArgument>> arguments = rangeArguments(call);
  return arguments ? truth(kFunction(call.environment(), *arguments)) : JS_EXCEPTION;
}

JSValue timeRangeHelper(const Call& call) {
  const std::optional<std::vector<RangeArgument>> arguments = rangeArguments(call);
  if (!arguments) return JS_EXCEPTION;
  const TimeRange range = timeRange(call.environment(), *arguments);
  if (range == TimeRange::kBadCount)
    return JS_ThrowTypeError(call.context, "timeRange wants 1, 2, 4 or 6 numbers");
  return truth(range == TimeRange::kInside);
}

JSValue alertHelper(const Call& call) {
  const bool symbol = JS_IsSymbol(call[0]);
  const Text text(call.context, symbol ? JS_UNDEFINED : call[0]);
  if (!text) return JS_EXCEPTION;
  // String() of a symbol does not throw, unlike every other conversion of one.
  EngineRuntime::of(call.context).alert(symbol ? "Symbol()" : text.view());
  return JS_UNDEFINED;
}

// Lookups wait and long texts take their time outside the engine, where it polls no clock.
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

struct Helper {
  const char* name;
  int length;  ///< of the function object: the arguments it is usually given
  JSCFunction* function;
};

template <JSValue (*kHelper)(const Call&)>
constexpr JSCFunction* kPure = entry<kHelper, false>;
template <JSValue (*kHelper)(const Call&)>
constexpr JSCFunction* kWaiting = entry<kHelper, true>;

constexpr Helper kHelpers[] = {
    {"isPlainHostName", 1, kPure<isPlainHostNameHelper>},
    {"dnsDomainIs", 2, kPure<dnsDomainIsHelper>},
    {"localHostOrDomainIs", 2, kPure<localHostOrDomainIsHelper>},
    {"dnsDomainLevels", 1, kPure<dnsDomainLevelsHelper>},
    {"isResolvable", 1, kWaiting<isResolvableHelper<isResolvable>>},
    {"dnsResolve", 1, kWaiting<dnsResolveHelper>},
    {"isInNet", 3, kWaiting<isInNetHelper>},
    {"convert_addr", 1, kPure<convertAddrHelper>},
    {"myIpAddress", 0, kWaiting<ownAddressHelper<myIpAddress>>},
    {"shExpMatch", 2, kPure<shExpMatchHelper>},
    {"weekdayRange", 0, kPure<rangeHelper<weekdayRange>>},
    {"dateRange", 0, kPure<rangeHelper<dateRange>>},
    {"timeRange", 0, kPure<timeRangeHelper>},
    {"alert", 1, kPure<alertHelper>},
    {"isResolvableEx", 1, kWaiting<isResolvableHelper<isResolvableEx>>},
    {"dnsResolveEx", 1, kWaiting<dnsResolveExHelper>},
    {"isInNetEx", 2, kPure<isInNetExHelper>},
    {"myIpAddressEx", 0, kWaiting<ownAddressHelper<myIpAddressEx>>},
    {"sortIpAddressList", 1, kPure<sortIpAddressListHelper>},
    {"getClientVersion", 0, kPure<getClientVersionHelper>},
};

}  // namespace

bool defineHelpers(EngineRuntime& runtime) {
  JSContext* const context = runtime.context();
  const Value global(context, JS_GetGlobalObject(context));
  // Like functions that a script declares: `function` and `var` may give the name anew, which wants
  // it writable and enumerable, `let` and `const` may not, which wants it not configurable.
  constexpr int kFlags = JS_PROP_WRITABLE | JS_PROP_ENUMERABLE;
  return std::all_of(std::begin(kHelpers), std::end(kHelpers), [&](const Helper& helper) {
    const JSValue function = JS_NewCFunction(context, helper.function, helper.name, helper.length);
    return JS_DefinePropertyValueStr(context, global.get(), helper.name, function, kFlags) >= 0;
  });
}

}  // namespace pac_worker
