// proxymanager-pac-worker: runs one PAC script for the library that started it.
//
// It has one thread and two descriptors: its end of a socket pair, and the script in a sealed
// memory file. The file is mapped and its descriptor closed; then the walls are raised; only then
// is the first byte of the script read. From there on the program answers questions until its
// socket ends.
#include <sys/mman.h>
#include <sys/stat.h>

#include <optional>
#include <string_view>

#include "engine/wire/channel.h"
#include "engine/wire/descriptors.h"
#include "engine/worker/conversation.h"
#include "engine/worker/sandbox.h"

namespace {

/// The script's bytes, not yet read, and the descriptor closed.
std::optional<std::string_view> mappedScript() {
  const base::UniqueFd file(pac_engine::kWorkerScript);
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return std::nullopt;
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size == 0) return std::string_view();
  void* const bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
  if (bytes == MAP_FAILED) return std::nullopt;
  return std::string_view(static_cast<const char*>(bytes), size);
}

void unmap(std::string_view script) {
  if (!script.empty()) munmap(const_cast<char*>(script.data()), script.size());
}

}  // namespace

int main() {
  pac_engine::Channel channel{base::UniqueFd(pac_engine::kWorkerSocket)};
  pac_worker::loadZone();
  const auto script = mappedScript();
  if (!script) pac_worker::refuse(channel, "the script cannot be mapped");
  if (const auto problem = pac_worker::enterSandbox(channel.fd())) {
    pac_worker::refuse(channel, "the sandbox cannot be had: " + *problem);
  }
  pac_worker::Conversation conversation(channel);
  conversation.load(*script);
  unmap(*script);
  conversation.answerForEver();
}
