#include "engine/worker/workbench/parser.h"

#include "engine/worker/engine_runtime.h"
#include "engine/worker/evaluation_alarm.h"
#include "engine/worker/script_error.h"
#include "engine/worker/script_text.h"
#include "engine/worker/workbench/own_scripts.h"
#include "engine/worker/worker_end.h"

namespace pac_worker {

Parser::Parser(pac_engine::Channel& channel) : mChannel(channel) {}
Parser::~Parser() = default;

void Parser::load(std::string_view script) {
  mTimeLimit = std::chrono::milliseconds(receiveStart(mChannel).timeLimitMs);
  const EvaluationAlarm alarm(mTimeLimit);
  ScriptLimits limits;
  limits.heapBytes = kParserHeapBytes;
  limits.stackBytes = kParserStackBytes;
  limits.time = mTimeLimit;
  mRuntime = std::make_unique<EngineRuntime>(mDevice, limits);
  JSContext* const context = mRuntime->context();
  if (context == nullptr) refuse(mChannel, "out of memory");
  for (const auto& [name, text] : kWorkbenchScripts) {
    const Value value(context,
                      JS_Eval(context, text.data(), text.size(), name.data(), JS_EVAL_TYPE_GLOBAL));
    if (mRuntime->timeIsUp()) refuse(mChannel, slowness());
    if (value.isException())
      refuse(mChannel, std::string(name) + ": " + takeException(context).message);
  }
  const auto opened = run("open", decodeScript(script), "");
  if (!opened.result) refuse(mChannel, opened.problem.message, opened.problem.line);
}

void Parser::serveForEver() {
  sendOrEnd(mChannel, pac_engine::Ready{});
  for (;;) {
    const auto message = receiveOrEnd(mChannel);
    const auto* const command = std::get_if<pac_engine::Command>(&message);
    if (command == nullptr) endWorker(kExitBroken);
    const auto reply = [&] {
      const EvaluationAlarm alarm(mTimeLimit);
      return run("run", command->name, command->argument);
    }();
    sendReport(mChannel, command->serial, reply);
  }
}

std::string Parser::slowness() const {
  return "parsing it takes longer than the time limit of " + std::to_string(mTimeLimit.count()) +
         " ms";
}

/// Calls a global function of our own scripts with two texts. @return the text that the function
/// returns
Reply Parser::run(const char* function, std::string_view first, std::string_view second) {
  JSContext* const context = mRuntime->context();
  mRuntime->begin();
  const Value global(context, JS_GetGlobalObject(context));
  const Value called(context, JS_GetPropertyStr(context, global.get(), function));
  const Value one(context, JS_NewStringLen(context, first.data(), first.size()));
  const Value two(context, JS_NewStringLen(context, second.data(), second.size()));
  JSValueConst arguments[] = {one.get(), two.get()};
  const Value result(context, JS_Call(context, called.get(), JS_UNDEFINED, 2, arguments));
  Problem problem;
  if (result.isException()) problem = takeException(context);
  if (mRuntime->timeIsUp()) return {std::nullopt, errorOf(slowness())};
  if (mRuntime->memoryWasRefused())
    return {std::nullopt, errorOf("parsing it takes more memory than the heap limit of " +
                                  std::to_string(kParserHeapBytes >> 20U) + " MiB")};
  if (result.isException()) return {std::nullopt, problem};
  const Text text(context, result.get());
  if (!text) return {std::nullopt, takeException(context)};
  return {std::string(text.view()), {}};
}

}  // namespace pac_worker
