// proxymanager-workbench: parses one PAC script, or runs one instrumented script, for
// proxymanagerctl.
//
// Like proxymanager-pac-worker, it has one thread, one end of a socket pair and the script in a
// memory file. It enters the same sandbox before it reads the first byte of the script. It has two
// roles. Its environment selects the role at the start, and no message can change the role. A
// parser never runs the script, and has more memory and time than a script may have. A tracer runs
// the script with the limits of every script. The daemon never starts this program.
#include <cstdlib>

#include "engine/wire/descriptors.h"
#include "engine/worker/mapped_script.h"
#include "engine/worker/sandbox.h"
#include "engine/worker/workbench/parser.h"
#include "engine/worker/workbench/tracer.h"

int main() {
  pac_engine::Channel channel{base::UniqueFd(pac_engine::kWorkerSocket)};
  const bool parses = std::getenv(pac_engine::kWorkbenchVariable) != nullptr;
  pac_worker::loadZone();
  const auto script = pac_worker::mappedScript();
  if (!script) pac_worker::refuse(channel, "the script cannot be mapped");
  const auto memory = parses ? pac_worker::kParserWalls : pac_worker::MemoryWalls{};
  if (const auto problem = pac_worker::enterSandbox(channel.fd(), memory)) {
    pac_worker::refuse(channel, "the sandbox cannot be set up: " + *problem);
  }
  if (parses) {
    pac_worker::Parser parser(channel);
    parser.load(*script);
    parser.serveForEver();
  }
  pac_worker::Tracer tracer(*script);
  pac_worker::Conversation conversation(channel, &tracer);
  conversation.load(*script);
  pac_worker::unmap(*script);
  conversation.answerForEver();
}
