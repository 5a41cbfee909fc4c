// Checks what remains of a record's texts in freed memory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/unique_fd.h"
#include "service/records/proxy_config.h"
#include "service/records/proxy_config_owner.h"

namespace {

constexpr std::size_t kLength = 200;
// The allocator writes its links into the first bytes of a freed block.
constexpr std::size_t kLinks = 16;

// The kernel reads the bytes, because they are in freed memory: a sanitizer would report a read by
// this process. A sanitizer would also check the memory for the library's write().
std::string bytesAt(const char* address, std::size_t length) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return "no pipe";
  const base::UniqueFd reading(ends[0]);
  const base::UniqueFd writing(ends[1]);
  const auto written = syscall(SYS_write, writing.get(), address, length);
  std::string bytes(length, '?');
  const auto count = read(reading.get(), bytes.data(), length);
  return written == count && count == static_cast<ssize_t>(length) ? bytes : "unreadable";
}

std::array<char*, 4> fill(ProxyConfig& config) {
  config.proxyurl = strdup(std::string(kLength, 'a').c_str());
  config.pacurl = strdup(std::string(kLength, 'b').c_str());
  config.userName = strdup(std::string(kLength, 'c').c_str());
  config.password = strdup(std::string(kLength, 'd').c_str());
  return {config.proxyurl, config.pacurl, config.userName, config.password};
}

void expectWiped(const std::array<char*, 4>& texts) {
  for (const char* text : texts) {
    const std::string left = bytesAt(text + kLinks, kLength - kLinks);
    EXPECT_TRUE(std::all_of(left.begin(), left.end(), [](char c) { return c == '\0'; })) << left;
  }
}

TEST(TextsOfARecord, AreWipedWhenTheyAreCleanedUp) {
  ProxyConfig config;
  const auto texts = fill(config);
  EXPECT_EQ(bytesAt(texts[3] + kLinks, 3), "ddd");
  cleanupProxyConfig(&config);
  expectWiped(texts);
}

TEST(TextsOfARecord, AreWipedWhenTheirOwnerIsClearedOrEnds) {
  std::array<char*, 4> texts{};
  {
    ProxyConfigOwner owner;
    texts = fill(*owner.get());
    owner.clear();
    expectWiped(texts);
    texts = fill(*owner.get());
  }
  expectWiped(texts);
}

}  // namespace
