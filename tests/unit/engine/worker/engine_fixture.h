// A script engine in an environment that the test controls, with shortcuts.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "engine/worker/script_engine.h"
#include "tests/unit/engine/worker/fake_environment.h"

namespace pac_worker {

class EngineTest : public testing::Test {
 protected:
  /// The usual limits with a long time limit: if a script ends by itself, it never reaches this
  /// limit, even on a very slow machine.
  static ScriptLimits patient() {
    ScriptLimits limits;
    limits.time = std::chrono::minutes(10);  // an emulator may need more than one minute
    return limits;
  }
  /// Loads the script into a fresh engine. @return the error's message, or "" if the script is
  /// loaded
  std::string load(const std::string& script, const ScriptLimits& limits = patient()) {
    mEngine = std::make_unique<ScriptEngine>(mWorld, limits);
    const std::optional<Problem> error = mEngine->load(script);
    mLine = error ? error->line : 0;
    return error ? error->message : "";
  }
  /// @return the answer, or "!" and the error's message
  std::string ask(std::string_view url = "http://example.com/",
                  std::string_view host = "example.com") {
    const Reply reply = mEngine->evaluate(url, host);
    mLine = reply.problem.line;
    return reply.result ? *reply.result : "!" + reply.problem.message;
  }
  /// The value of an expression, as String() shows it, or "!" and the error's message.
  std::string value(const std::string& expression, const ScriptLimits& limits = patient()) {
    const std::string refused =
        load("function FindProxyForURL(url, host) { return String(" + expression + ") }", limits);
    return refused.empty() ? ask() : "refused: " + refused;
  }

  FakeEnvironment mWorld;
  std::unique_ptr<ScriptEngine> mEngine;
  std::uint32_t mLine = 0;  ///< line of the last error
};

}  // namespace pac_worker
