#include "fetcher/child/bounded_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/own_root_test.h"

namespace fs = std::filesystem;

namespace {

constexpr char kFile[] = "/tmp/target";

struct CloseStream {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};

class BoundedStream : public OwnRootTest {
 protected:
  void openWith(std::size_t limit, const char* path = kFile) {
    mFile.reset(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_TRUE(mFile);
    mStream.reset(fetch_child::openBoundedStream(mFile.get(), limit));
    ASSERT_NE(mStream, nullptr);
  }
  std::size_t put(const std::string& bytes) {
    return std::fwrite(bytes.data(), 1, bytes.size(), mStream.get());
  }

  base::UniqueFd mFile;
  std::unique_ptr<std::FILE, CloseStream> mStream;
};

TEST_F(BoundedStream, TakesTheLimitAndRefusesTheByteAfterIt) {
  openWith(5);
  EXPECT_EQ(put("abc"), 3u);
  EXPECT_EQ(put("de"), 2u);
  EXPECT_LT(put("f"), 1u);
  EXPECT_EQ(readFile(kFile), "abcde");
}

TEST_F(BoundedStream, RefusesAWriteAcrossTheLimitAtOnce) {
  openWith(5);
  EXPECT_LT(put(std::string(100000, 'x')), 100000u);
  EXPECT_LE(fs::file_size(kFile), 5u);
}

TEST_F(BoundedStream, KeepsNothingBack) {
  openWith(100);
  put("now");
  EXPECT_EQ(readFile(kFile), "now");
}

TEST_F(BoundedStream, FailsTheWriteOnAFullDisk) {
  fs::create_directory("/run/small");
  ASSERT_EQ(mount("tmpfs", "/run/small", "tmpfs", 0, "size=64k"), 0);
  openWith(1000000, "/run/small/target");
  EXPECT_LT(put(std::string(100000, 'x')), 100000u);
}

TEST_F(BoundedStream, LeavesTheDescriptorToTheCaller) {
  openWith(5);
  mStream.reset();
  EXPECT_GE(fcntl(mFile.get(), F_GETFD), 0);
}

}  // namespace
