#include "engine/worker/workbench/tracer.h"

#include <chrono>
#include <new>
#include <utility>

#include "base/utf8.h"
#include "engine/worker/engine_runtime.h"
#include "engine/worker/script_error.h"

namespace pac_worker {
namespace {

using Clock = std::chrono::steady_clock;

/// Longest text whose content the report shows, in characters. For a longer text, the report shows
/// only the length, because reading the text would copy it in memory.
constexpr std::int64_t kMaxLaidOut = 64 << 10;
constexpr std::size_t kMaxHookName = 32;

constexpr const char* kHelpers[] = {"alert",
                                    "myIpAddress",
                                    "dnsResolve",
                                    "isPlainHostName",
                                    "dnsResolveEx",
                                    "myIpAddressEx",
                                    "sortIpAddressList",
                                    "isInNetEx",
                                    "getClientVersion",
                                    "dnsDomainIs",
                                    "dnsDomainLevels",
                                    "isValidIpAddress",
                                    "convert_addr",
                                    "isInNet",
                                    "isResolvable",
                                    "localHostOrDomainIs",
                                    "shExpMatch",
                                    "weekdayRange",
                                    "dateRange",
                                    "timeRange",
                                    "isResolvableEx"};

/// The name in the first comment, "/*$pmDIGITS*/"; empty if the script has another start. The
/// command "bench" traces a script that is not instrumented. Such a script may start with any
/// comment.
std::string hookName(std::string_view script) {
  constexpr std::string_view kOpen = "/*";
  constexpr std::string_view kName = "$pm";
  const auto end = script.substr(0, kMaxHookName).find("*/");
  if (!script.starts_with(kOpen) || end == script.npos) return {};
  const auto name = script.substr(kOpen.size(), end - kOpen.size());
  const bool isHook = name.starts_with(kName) && name.size() > kName.size() &&
                      name.find_first_not_of("0123456789", kName.size()) == name.npos;
  return isHook ? std::string(name) : std::string();
}

std::string quoted(std::string_view text) {
  std::string json = "\"";
  const bool isText = base::isUtf8(text);
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      json += '\\';
      json += c;
    } else if (byte < 0x20U || byte == 0x7FU) {
      constexpr char kDigits[] = "0123456789abcdef";
      json += "\\u00";
      json += kDigits[byte >> 4U];
      json += kDigits[byte & 0xFU];
    } else {
      json += byte < 0x80U || isText ? c : '?';
    }
  }
  return json += '"';
}

std::int64_t microsecondsOf(Clock::duration time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

/// A value in JavaScript syntax. For an object, the text shows only its kind. The function runs no
/// code of the script.
std::string shown(JSContext* context, JSValueConst value) {
  if (JS_IsString(value)) {
    std::int64_t length = 0;
    if (JS_GetLength(context, value, &length) < 0) length = kMaxLaidOut + 1;
    if (length > kMaxLaidOut) return "a text of " + std::to_string(length) + " characters";
  } else if (JS_IsFunction(context, value)) {
    return "function";
  } else if (JS_IsObject(value)) {
    return JS_IsArray(value) ? "array" : "object";
  } else if (JS_IsSymbol(value)) {
    return "symbol";
  }
  const Text text(context, value);
  if (!text) {
    JS_FreeValue(context, JS_GetException(context));
    return "?";
  }
  if (!JS_IsString(value)) return std::string(text.view());
  const auto cut = base::utf8Head(text.view(), kMaxValueBytes);
  return quoted(cut) + (cut.size() < text.view().size() ? "..." : "");
}

std::string listOf(const std::vector<std::string>& texts) {
  std::string json = "[";
  for (const auto& text : texts) json += (json.size() == 1 ? "" : ",") + quoted(text);
  return json + "]";
}

}  // namespace

/// The functions that the script calls. The engine's runtime has a pointer to the tracer.
struct Tracer::Hooks {
  static Tracer& tracerOf(JSContext* context) {
    return *static_cast<Tracer*>(JS_GetRuntimeOpaque(JS_GetRuntime(context)));
  }

  static JSValue reached(JSContext* context, JSValueConst /*self*/, int count,
                         JSValueConst* arguments) try {
    std::uint32_t place = 0;
    JS_ToUint32(context, &place, arguments[0]);
    Tracer& tracer = tracerOf(context);
    auto* const counts = tracer.countsOf(place);
    if (count == 1 || count == 4) {
      if (counts != nullptr) ++counts->reached;
      if (count == 4) {
        std::int32_t test = -1;
        JS_ToInt32(context, &test, arguments[3]);
        tracer.noteEntry(place, test);
      }
      return JS_UNDEFINED;
    }
    const bool truthy = JS_ToBool(context, arguments[1]) > 0;
    if (counts != nullptr) ++(truthy ? counts->truthy : counts->falsy);
    if (tracer.records(count == 3 ? Detail::kReturns : Detail::kEverything)) {
      const bool isAfterOthers = std::exchange(tracer.mSkipped, false);
      tracer.noteEvent("[\"v\"," + std::to_string(place) + "," +
                       quoted(shown(context, arguments[1])) + (truthy ? ",true" : ",false") +
                       (isAfterOthers ? ",true]" : "]"));
    } else {
      tracer.mSkipped = true;
    }
    return JS_DupValue(context, arguments[1]);
  } catch (const std::bad_alloc&) {
    return count == 1 || count == 4 ? JS_UNDEFINED : JS_DupValue(context, arguments[1]);
  }

  static JSValue called(JSContext* context, JSValueConst self, int count, JSValueConst* arguments,
                        int helper, JSValueConst* data) {
    Tracer& tracer = tracerOf(context);
    std::string noted;
    try {
      for (int i = 0; i < count && tracer.records(Detail::kEverything); ++i)
        noted += (i == 0 ? "" : ",") + quoted(shown(context, arguments[i]));
      tracer.mOpenCalls.emplace_back();
    } catch (const std::bad_alloc&) {
      return JS_ThrowOutOfMemory(context);
    }
    const auto begun = Clock::now();
    JSValue result = JS_Call(context, data[0], self, count, arguments);
    const auto took = Clock::now() - begun;
    if (tracer.mOpenCalls.size() == 1) tracer.noteHelper(took);
    try {
      const auto lookups = std::move(tracer.mOpenCalls.back().lookups);
      tracer.mOpenCalls.pop_back();
      const bool threw = JS_IsException(result);
      tracer.mSkipped = tracer.mDetail != Detail::kEverything;
      if (tracer.records(Detail::kEverything))
        tracer.noteEvent("[\"c\"," + std::to_string(tracer.mOpenCalls.size()) + "," +
                         quoted(kHelpers[helper]) + ",[" + noted + "]," +
                         (threw ? "null" : quoted(shown(context, result))) + "," +
                         std::to_string(microsecondsOf(took)) + ",[" + lookups + "]]");
    } catch (const std::bad_alloc&) {
      tracer.mCut = true;
    }
    return result;
  }

  /// Replaces Function.prototype.toString.
  static JSValue textOf(JSContext* context, JSValueConst self, int count, JSValueConst* arguments,
                        int /*magic*/, JSValueConst* data) {
    tracerOf(context).mOwnText = true;
    return JS_Call(context, data[0], self, count, arguments);
  }

  /// Wraps the method `name` of `object` in one of our functions. @return false if memory is
  /// exhausted
  static bool surround(JSContext* context, JSValueConst object, const char* name,
                       JSCFunctionData* function, int magic) {
    const Value original(context, JS_GetPropertyStr(context, object, name));
    std::int64_t length = 0;
    if (!JS_IsFunction(context, original.get()) ||
        JS_GetLength(context, original.get(), &length) < 0)
      return false;
    JSValueConst data[] = {original.get()};
    const JSValue around =
        JS_NewCFunctionData2(context, function, name, static_cast<int>(length), magic, 1, data);
    return !JS_IsException(around) && JS_SetPropertyStr(context, object, name, around) >= 0;
  }

  /// Defines the constant `name` for the script.
  static bool define(JSContext* context, JSValueConst global, const std::string& name) {
    const std::string handed = name + "_";
    const JSValue hook = JS_NewCFunction(context, reached, "", 2);
    if (JS_DefinePropertyValueStr(context, global, handed.c_str(), hook, JS_PROP_C_W_E) < 0)
      return false;
    const std::string text =
        "const " + name + " = " + handed + "; delete globalThis." + handed + ";";
    const Value done(context,
                     JS_Eval(context, text.c_str(), text.size(), "workbench", JS_EVAL_TYPE_GLOBAL));
    return !done.isException();
  }
};

Tracer::Tracer(std::string_view script)
    : mHook(hookName(script)), mDetail(mHook.empty() ? Detail::kNothing : Detail::kEverything) {}

bool Tracer::prepare(EngineRuntime& runtime) {
  JSContext* const context = runtime.context();
  JS_SetRuntimeOpaque(JS_GetRuntime(context), this);
  const Value global(context, JS_GetGlobalObject(context));
  for (int i = 0; i < static_cast<int>(std::size(kHelpers)); ++i)
    if (!Hooks::surround(context, global.get(), kHelpers[i], Hooks::called, i)) return false;
  const Value function(context, JS_GetPropertyStr(context, global.get(), "Function"));
  const Value prototype(context, JS_GetPropertyStr(context, function.get(), "prototype"));
  if (!Hooks::surround(context, prototype.get(), "toString", Hooks::textOf, 0)) return false;
  return mHook.empty() || Hooks::define(context, global.get(), mHook);
}

PacEnvironment& Tracer::around(PacEnvironment& device) {
  mDevice = &device;
  return *this;
}

std::vector<std::string> Tracer::resolve(std::string_view name, AddressFamily family) {
  const auto begun = Clock::now();
  auto addresses = mDevice->resolve(name, family);
  noteLookup(name, family, addresses, microsecondsOf(Clock::now() - begun));
  return addresses;
}

std::vector<std::string> Tracer::ownAddresses(AddressFamily family) {
  return mDevice->ownAddresses(family);
}

Tracer::Counts* Tracer::countsOf(std::uint32_t place) {
  if (mDetail < Detail::kCounts || place >= kMaxPlaces) return nullptr;
  if (place >= mCounts.size()) mCounts.resize(place + 1);
  return &mCounts[place];
}

void Tracer::noteEvent(const std::string& json) {
  if (mEvents.size() + json.size() > kMaxEventBytes) {
    mCut = true;
    return;
  }
  mEvents += json;
  mEvents += ',';
}

void Tracer::noteEntry(std::uint32_t place, std::int32_t test) {
  if (records(Detail::kEverything))
    noteEvent("[\"e\"," + std::to_string(place) + "," + std::to_string(test) + "]");
}

void Tracer::noteLookup(std::string_view name, AddressFamily family,
                        const std::vector<std::string>& addresses, std::int64_t microseconds) {
  if (mOpenCalls.empty()) return;
  const bool anyFamily = family == AddressFamily::kAny;
  const bool isNew = mAsked.insert((anyFamily ? "6" : "4") + std::string(name)).second;
  auto& lookups = mOpenCalls.back().lookups;
  if (!lookups.empty()) lookups += ',';
  lookups += "[" + quoted(name) + "," + listOf(addresses) + "," + std::to_string(microseconds) +
             (isNew ? ",true]" : ",false]");
}

void Tracer::noteHelper(std::chrono::nanoseconds took) {
  ++mHelperCalls;
  mHelperTime += took;
}

void Tracer::forget() {
  mCounts.clear();
  mHelperCalls = 0;
  mHelperTime = {};
  mEvents.clear();
  mCut = mOwnText = mSkipped = false;
  mAsked.clear();
}

Reply Tracer::report(std::string_view command, std::string_view argument) {
  if (command != "trace") return {std::nullopt, errorOf("there is no such command")};
  std::string json = "{\"counts\":[";
  for (std::size_t place = 0; place < mCounts.size(); ++place) {
    const auto& counts = mCounts[place];
    if (counts.reached + counts.truthy + counts.falsy == 0) continue;
    if (json.back() != '[') json += ',';
    json += std::to_string(place) + "," + std::to_string(counts.reached) + "," +
            std::to_string(counts.truthy) + "," + std::to_string(counts.falsy);
  }
  json += "],\"events\":[";
  if (!mEvents.empty()) json.append(mEvents, 0, mEvents.size() - 1);
  json += std::string("],\"cut\":") + (mCut ? "true" : "false") +
          ",\"ownText\":" + (mOwnText ? "true" : "false") + ",\"helpers\":[" +
          std::to_string(mHelperCalls) + "," + std::to_string(mHelperTime.count()) + "]}";
  forget();
  if (!mHook.empty())
    mDetail = argument == "returns"  ? Detail::kReturns
              : argument == "counts" ? Detail::kCounts
                                     : Detail::kEverything;
  return {std::move(json), {}};
}

}  // namespace pac_worker
