#include "client/ctl/daemon/pac_file.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <system_error>

#include "base/unique_fd.h"
#include "client/ctl/commands/script_file.h"

namespace client {

namespace {

struct DigestFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

constexpr std::size_t kChunkBytes = 64U << 10U;

PacFileState problem(bool isThere, std::string text) {
  return {std::nullopt, isThere, std::move(text)};
}

std::string reason(int error) {
  return std::generic_category().message(error);
}

std::string hexadecimal(const unsigned char* bytes, unsigned count) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < count; ++i) text += {kDigits[bytes[i] >> 4U], kDigits[bytes[i] & 15U]};
  return text;
}

/// Fills in the digest and the length of what `fd` holds, which may grow while it is read.
PacFileState digested(int fd, PacFile file) {
  const std::unique_ptr<EVP_MD_CTX, DigestFree> context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    throw std::bad_alloc();
  }
  std::array<unsigned char, kChunkBytes> chunk{};
  file.bytes = 0;
  for (;;) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return problem(true, "it cannot be read: " + reason(errno));
    if (count == 0) break;
    file.bytes += static_cast<std::uint64_t>(count);
    if (file.bytes > kMaxScriptBytes) {
      return problem(true, "it is longer than 512,000 bytes, the most that the daemon takes");
    }
    EVP_DigestUpdate(context.get(), chunk.data(), static_cast<std::size_t>(count));
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  EVP_DigestFinal_ex(context.get(), digest.data(), &size);
  file.sha256 = hexadecimal(digest.data(), size);
  return {std::move(file), true, {}};
}

}  // namespace

PacFileState lookAtPacFile(const char* path) {
  constexpr int kCarefully = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  const base::UniqueFd fd(open(path, kCarefully));
  if (!fd && errno == ENOENT) return problem(false, "there is none");
  if (!fd && errno == ELOOP) return problem(true, "it is a link, which the daemon does not follow");
  if (!fd) return problem(true, "it cannot be read: " + reason(errno));
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) return problem(true, "it cannot be read: " + reason(errno));
  if (!S_ISREG(status.st_mode)) return problem(true, "it is no regular file");
  PacFile file;
  file.fetched = status.st_mtim.tv_sec * 1'000'000 + status.st_mtim.tv_nsec / 1000;
  file.owner = status.st_uid;
  return digested(fd.get(), std::move(file));
}

}  // namespace client
