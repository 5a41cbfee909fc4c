// The digest of a script: with libcrypto, which is mapped late, and without it.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>
#include <openssl/md5.h>
#include <sys/mount.h>

#include <cstring>
#include <fstream>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/own_root.h"

namespace {

constexpr const char* kLibrary = "libcrypto.so.3";

std::string digestOf(const std::string& text) {
  unsigned char digest[MD5_DIGEST_LENGTH + 1] = {};
  MD5_CTX context;
  MD5_Init(&context);
  MD5_Update(&context, text.data(), text.size());
  MD5_Final(digest, &context);
  return reinterpret_cast<const char*>(digest);  // up to a zero, as in the parser
}

bool isMapped() {
  bool found = false;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* mapped) {
        if (std::strstr(info->dlpi_name, kLibrary) != nullptr) *static_cast<bool*>(mapped) = true;
        return 0;
      },
      &found);
  return found;
}

/// The loader finds an empty file first. This file is not a library, and the loader does not search
/// further.
/// @return the path of the empty file
std::string hideTheLibrary() {
  enterOwnRoot();
  std::string path;
  for (const char* folder : {"/lib/", "/usr/lib/"}) {
    for (const char* machine :
         {"", "x86_64-linux-gnu/", "aarch64-linux-gnu/", "arm-linux-gnueabihf/"}) {
      const auto candidate = std::string(folder) + machine + kLibrary;
      if (std::ifstream(candidate)) path = candidate;
    }
  }
  EXPECT_NE(path, "");
  std::ofstream("/tmp/empty").flush();
  EXPECT_EQ(mount("/tmp/empty", path.c_str(), nullptr, MS_BIND, nullptr), 0)
      << std::strerror(errno);
  return path;
}

TEST(CryptoOnDemand, MapsTheLibraryForTheFirstDigestAndNotBefore) {
  EXPECT_FALSE(isMapped());
  // RFC 1321, A.5
  EXPECT_EQ(digestOf("abc"), "\x90\x01\x50\x98\x3c\xd2\x4f\xb0\xd6\x96\x3f\x7d\x28\xe1\x7f\x72");
  EXPECT_TRUE(isMapped());
}

TEST(CryptoOnDemand, WithoutTheLibraryMakesNoDigest) {
  hideTheLibrary();
  MD5_CTX context;
  EXPECT_EQ(MD5_Init(&context), 0);
  EXPECT_EQ(MD5_Update(&context, "abc", 3), 0);
  unsigned char digest[MD5_DIGEST_LENGTH] = {7};
  EXPECT_EQ(MD5_Final(digest, &context), 0);
  EXPECT_EQ(digest[0], 7);
  EXPECT_THAT(logLines(),
              testing::Contains(testing::Field(
                  &LogLine::text, testing::StartsWith("on_demand: no libcrypto.so.3: "))));
}

TEST(CryptoOnDemand, ALibraryThatComesBackBetweenTwoStepsServesTheNextDigest) {
  const auto hidden = hideTheLibrary();
  MD5_CTX context;
  std::memset(&context, 0xff, sizeof context);
  EXPECT_EQ(MD5_Init(&context), 0);
  ASSERT_EQ(umount(hidden.c_str()), 0) << std::strerror(errno);
  const std::string longText(1000, 'a');
  EXPECT_EQ(MD5_Update(&context, longText.data(), longText.size()), 0);
  unsigned char digest[MD5_DIGEST_LENGTH] = {};
  EXPECT_EQ(MD5_Final(digest, &context), 0);
  EXPECT_EQ(digestOf("abc"), "\x90\x01\x50\x98\x3c\xd2\x4f\xb0\xd6\x96\x3f\x7d\x28\xe1\x7f\x72");
}

}  // namespace
