#include "client/ctl/daemon/pac_file.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <ctime>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "base/library_on_demand.h"
#include "base/small_file.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

namespace {

// libcrypto is mapped only when a digest is needed. If each command mapped it, this would take a
// third of the time that a command needs to start.
struct Crypto {
  decltype(&::EVP_sha256) sha256;
  decltype(&::EVP_Digest) digest;
};

bool findAll(void* library, Crypto& found) {
  return on_demand::find(library, "EVP_sha256", found.sha256) &&
         on_demand::find(library, "EVP_Digest", found.digest);
}

/// The digest in 64 hexadecimal digits; empty if there is no libcrypto.
std::string sha256Of(const std::string& bytes) {
  static on_demand::Library<Crypto> library("libcrypto.so.3", findAll);
  const auto* const crypto = library.functions();
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (crypto == nullptr || crypto->digest(bytes.data(), bytes.size(), digest.data(), &size,
                                          crypto->sha256(), nullptr) != 1) {
    return {};
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < size; ++i) text += {kDigits[digest[i] >> 4U], kDigits[digest[i] & 15U]};
  return text;
}

PacFileState problemOf(base::FileFailure failure) {
  switch (failure.problem) {
    case base::FileProblem::missing:
      return {std::nullopt, false, "there is none"};
    case base::FileProblem::link:
      return {std::nullopt, true, "it is a link, which the daemon does not follow"};
    case base::FileProblem::notRegular:
      return {std::nullopt, true, "it is no regular file"};
    case base::FileProblem::tooLong:
      return {std::nullopt, true,
              "it is longer than 512,000 bytes, the most that the daemon takes"};
    default:
      return {std::nullopt, true,
              "it cannot be read: " + std::generic_category().message(failure.error)};
  }
}

/// When `process` was started, in microseconds since 1970. @return nothing if it has ended
std::optional<std::int64_t> startOf(std::int64_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text, '\0');
  // The process name, in brackets, may contain any text. The start time is the twentieth field
  // after the name.
  std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
  std::string field;
  for (int i = 0; i < 20; ++i) fields >> field;
  std::int64_t ticks = 0;
  if (std::from_chars(field.data(), field.data() + field.size(), ticks).ec != std::errc()) {
    return std::nullopt;
  }
  timespec sinceBoot{};
  clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
  const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  const std::int64_t boot = now - (sinceBoot.tv_sec * 1'000'000 + sinceBoot.tv_nsec / 1000);
  return boot + ticks * (1'000'000 / sysconf(_SC_CLK_TCK));
}

}  // namespace

PacFileState lookAtPacFile(const char* path) {
  base::FileDemands demands;
  demands.mostBytes = kMaxScriptBytes;
  demands.owner = base::FileOwner::anybody;
  demands.acceptsSecondName = true;
  const auto opened = base::openFile(path, demands);
  if (opened.failure) return problemOf(opened.failure);
  const auto read = base::readToEnd(opened.fd.get(), kMaxScriptBytes);
  if (read.failure) return problemOf(read.failure);
  const auto& changed = opened.status.st_mtim;
  return {PacFile{read.text.size(), changed.tv_sec * 1'000'000 + changed.tv_nsec / 1000,
                  opened.status.st_uid, sha256Of(read.text)},
          true,
          {}};
}

bool isNewerThan(const PacFile& file, std::int64_t process) {
  const auto started = startOf(process);
  return started && file.fetched >= *started;
}

}  // namespace client
