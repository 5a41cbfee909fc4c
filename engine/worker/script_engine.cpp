// Each script has its own runtime. A script that fills or misuses its runtime harms only its own
// state. If a script has passed the heap limit and still uses more than half of the heap, the next
// evaluation first loads the script again into a new runtime.
//
// Some scripts can be stopped only from outside: the library kills the worker. The engine does not
// read the clock while a built-in function runs. Such a function may run very long: it may process
// an object that only claims a giant length (indexOf or join of {length: 2 ** 50}), or search a
// giant string repeatedly. In addition, an async function or the executor of a promise turns the
// interrupt into a rejection, so a loop around it continues.
#include "engine/worker/script_engine.h"

#include <algorithm>
#include <new>
#include <utility>

#include "engine/worker/engine_runtime.h"
#include "engine/worker/script_error.h"
#include "engine/worker/script_helpers.h"
#include "engine/worker/script_text.h"

namespace pac_worker {
namespace {

constexpr char kEntryPoint[] = "FindProxyForURL";
constexpr char kOutOfMemory[] = "out of memory";

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80U; });
}

}  // namespace

struct ScriptEngine::Impl {
  PacEnvironment& environment;
  const ScriptLimits limits;
  Preparation* const preparation;
  std::string script;                      ///< decoded; kept to be loaded again
  std::unique_ptr<EngineRuntime> runtime;  ///< null if no script is loaded
  bool worn = false;  ///< the script passed the heap limit, and uses over half of the heap

  std::optional<Problem> start();
  /// @param begun whether runtime->begin() was already called for this evaluation, because the
  /// script was just loaded again
  Reply call(std::string_view url, std::string_view host, bool begun);

 private:
  std::optional<Problem> run();
  std::optional<Problem> passedLimit();
  Reply answerOf(JSValueConst result);
};

// The limit that was passed since begin(), if any. The heap limit counts as passed even if the
// script has caught the error that it got at the limit.
std::optional<Problem> ScriptEngine::Impl::passedLimit() {
  std::optional<Problem> error;
  if (runtime->memoryWasRefused()) {
    error =
        errorOf("the heap limit of " + std::to_string(limits.heapBytes >> 10U) + " KiB was passed");
    worn = runtime->bytesInUse() > limits.heapBytes / 2;
  }
  if (runtime->timeIsUp())
    error = errorOf("the time limit of " + std::to_string(limits.time.count()) + " ms was passed");
  return error;
}

std::optional<Problem> ScriptEngine::Impl::start() {
  worn = false;
  runtime.reset();
  runtime = std::make_unique<EngineRuntime>(environment, limits);
  if (runtime->context() == nullptr || !defineHelpers(*runtime)) return errorOf(kOutOfMemory);
  if (preparation != nullptr && !preparation->prepare(*runtime)) return errorOf(kOutOfMemory);
  return run();
}

std::optional<Problem> ScriptEngine::Impl::run() {
  JSContext* const context = runtime->context();
  runtime->begin();
  std::optional<Problem> error;
  {
    const Value value(
        context, JS_Eval(context, script.c_str(), script.size(), kScriptName, JS_EVAL_TYPE_GLOBAL));
    if (value.isException()) error = takeException(context);
  }
  if (!error) {
    runtime->runJobs();
    const Value global(context, JS_GetGlobalObject(context));
    const Value entry(context, JS_GetPropertyStr(context, global.get(), kEntryPoint));
    if (entry.isException())
      error = takeException(context);
    else if (!JS_IsFunction(context, entry.get()))
      error = errorOf(std::string("the script defines no function ") + kEntryPoint);
  }
  const std::optional<Problem> limit = passedLimit();
  if (limit) error = Problem{limit->message, error ? error->line : 0};
  return error;
}

Reply ScriptEngine::Impl::answerOf(JSValueConst result) {
  JSContext* const context = runtime->context();
  if (!JS_IsString(result)) return {std::nullopt, errorOf("the result is no string")};
  // The length is checked first, because a long result may need more memory than is available.
  const Value length(context, JS_GetPropertyStr(context, result, "length"));
  std::int64_t units = 0;
  if (JS_ToInt64(context, &units, length.get()) < 0) return {std::nullopt, takeException(context)};
  if (static_cast<std::size_t>(units) > limits.resultBytes)
    return {std::nullopt,
            errorOf("the result is longer than " + std::to_string(limits.resultBytes) + " bytes")};
  const Text text(context, result);
  if (!text) return {std::nullopt, takeException(context)};
  if (!isAscii(text.view())) return {std::nullopt, errorOf("the result is not ASCII")};
  return {std::string(text.view()), {}};
}

Reply ScriptEngine::Impl::call(std::string_view url, std::string_view host, bool begun) {
  JSContext* const context = runtime->context();
  if (!begun) runtime->begin();
  Reply reply;
  {
    const Value global(context, JS_GetGlobalObject(context));
    const Value entry(context, JS_GetPropertyStr(context, global.get(), kEntryPoint));
    const Value urlText(context, JS_NewStringLen(context, url.data(), url.size()));
    const Value hostText(context, JS_NewStringLen(context, host.data(), host.size()));
    JSValueConst arguments[] = {urlText.get(), hostText.get()};
    const bool ready = !entry.isException() && !urlText.isException() && !hostText.isException();
    const Value result(
        context, ready ? JS_Call(context, entry.get(), JS_UNDEFINED, 2, arguments) : JS_EXCEPTION);
    reply =
        result.isException() ? Reply{std::nullopt, takeException(context)} : answerOf(result.get());
  }
  runtime->runJobs();
  if (const std::optional<Problem> limit = passedLimit())
    reply = {std::nullopt, {limit->message, reply.problem.line}};
  return reply;
}

ScriptEngine::ScriptEngine(PacEnvironment& environment, const ScriptLimits& limits,
                           Preparation* preparation)
    : mImpl(new Impl{environment, limits, preparation, {}, nullptr}) {}

ScriptEngine::~ScriptEngine() = default;

std::optional<Problem> ScriptEngine::load(std::string_view bytes) try {
  mImpl->script = decodeScript(bytes);
  std::optional<Problem> error = mImpl->start();
  if (error) mImpl->runtime.reset();
  return error;
} catch (const std::bad_alloc&) {
  mImpl->runtime.reset();
  return Problem{kOutOfMemory};
}

Reply ScriptEngine::evaluate(std::string_view url, std::string_view host) try {
  if (!mImpl->runtime) return {std::nullopt, errorOf("no script is loaded")};
  const bool reload = mImpl->worn;
  if (reload) {
    if (std::optional<Problem> error = mImpl->start()) {
      mImpl->worn = true;
      return {std::nullopt, std::move(*error)};
    }
  }
  return mImpl->call(url, host, reload);
} catch (const std::bad_alloc&) {
  return {std::nullopt, {kOutOfMemory, 0}};
}

}  // namespace pac_worker
