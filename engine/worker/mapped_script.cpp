#include "engine/worker/mapped_script.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include "base/unique_fd.h"
#include "engine/wire/descriptors.h"

namespace pac_worker {

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

}  // namespace pac_worker
