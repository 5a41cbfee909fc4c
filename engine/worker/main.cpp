// proxymanager-pac-worker: runs one PAC script for the library that started it.
//
// It has one thread and two descriptors: its end of a socket pair, and the script in a sealed
// memory file. The program maps the file and closes its descriptor. Then it enters the sandbox.
// It reads the script only in the sandbox. Then the program answers questions until the other end
// of its socket is closed.
#include "engine/wire/channel.h"
#include "engine/wire/descriptors.h"
#include "engine/worker/conversation.h"
#include "engine/worker/mapped_script.h"
#include "engine/worker/sandbox.h"

int main() {
  pac_engine::Channel channel{base::UniqueFd(pac_engine::kWorkerSocket)};
  pac_worker::loadZone();
  const auto script = pac_worker::mappedScript();
  if (!script) pac_worker::refuse(channel, "the script cannot be mapped");
  if (const auto problem = pac_worker::enterSandbox(channel.fd())) {
    pac_worker::refuse(channel, "the sandbox cannot be set up: " + *problem);
  }
  pac_worker::Conversation conversation(channel);
  conversation.load(*script);
  pac_worker::unmap(*script);
  conversation.answerForEver();
}
