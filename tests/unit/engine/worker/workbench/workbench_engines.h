// The workers of the workbench, each in the same simulated environment.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "engine/pac_engine.h"

namespace workbench {

using Json = nlohmann::json;
using pac_engine::Engine;
using pac_engine::Problem;
using pac_engine::WorkerRole;

/// @return null if `script` is refused
inline std::unique_ptr<Engine> load(const std::string& script, WorkerRole role, Problem& refused) {
  pac_engine::Options options;
  options.role = role;
  options.clock = 1770000000;
  options.zone = "UTC";
  options.names.staticNames =
      pac_engine::StaticNames{{"known.example", {"192.0.2.7"}}, {"b.example", {"10.9.9.9"}}};
  options.ownAddresses = {{"10.1.2.3"}};
  options.timeLimit = std::chrono::minutes(10);  // under an emulator, a test may need minutes
  return Engine::load(script, options, refused);
}

inline Json command(Engine& engine, const std::string& name, const std::string& argument = "") {
  Problem problem;
  const auto text = engine.command(name, argument, problem);
  EXPECT_TRUE(text) << pac_engine::describe(problem);
  return text ? Json::parse(*text) : Json();
}

/// The script's answer for `url`, or the reason why there is none.
inline std::string answered(Engine& engine, const std::string& url, const std::string& host) {
  const auto reply = engine.evaluate(url, host);
  return reply.result ? *reply.result : pac_engine::describe(reply.problem);
}

}  // namespace workbench
