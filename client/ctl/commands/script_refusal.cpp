#include "client/ctl/commands/script_refusal.h"

#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"
#include "engine/pac_engine.h"

namespace client {

std::string refusalOf(const char* path) {
  try {
    pac_engine::Problem refused;
    const auto engine = pac_engine::Engine::load(readScript(path), {}, refused);
    return engine ? std::string() : pac_engine::describe(refused);
  } catch (const Failure& failure) {
    return failure.what();
  }
}

}  // namespace client
