#include "fetcher/bounded_file.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/own_root_test.h"

namespace fs = std::filesystem;

namespace {

constexpr char kFile[] = "/tmp/target";

struct CloseStream {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, CloseStream>;

Stream create(std::size_t limit) {
  return Stream(fetcher::createBoundedFile(kFile, limit));
}

class BoundedFile : public OwnRootTest {
 protected:
};

TEST_F(BoundedFile, TakesTheLimitAndRefusesTheByteAfterIt) {
  const Stream stream = create(5);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(std::fwrite("abc", 1, 3, stream.get()), 3u);
  EXPECT_EQ(std::fwrite("de", 1, 2, stream.get()), 2u);
  EXPECT_LT(std::fwrite("f", 1, 1, stream.get()), 1u);
  EXPECT_EQ(readFile(kFile), "abcde");
}

TEST_F(BoundedFile, RefusesAWriteAcrossTheLimitAtOnce) {
  const Stream stream = create(5);
  const std::string bytes(100000, 'x');
  EXPECT_LT(std::fwrite(bytes.data(), 1, bytes.size(), stream.get()), bytes.size());
  EXPECT_LE(fs::file_size(kFile), 5u);
}

TEST_F(BoundedFile, KeepsNothingBack) {
  const Stream stream = create(100);
  std::fwrite("now", 1, 3, stream.get());
  EXPECT_EQ(readFile(kFile), "now");
}

TEST_F(BoundedFile, FailsTheWriteOnAFullDisk) {
  fs::create_directory("/run/small");
  ASSERT_EQ(mount("tmpfs", "/run/small", "tmpfs", 0, "size=64k"), 0);
  const Stream stream(fetcher::createBoundedFile("/run/small/target", 1000000));
  ASSERT_NE(stream, nullptr);
  const std::string bytes(100000, 'x');
  EXPECT_LT(std::fwrite(bytes.data(), 1, bytes.size(), stream.get()), bytes.size());
}

TEST_F(BoundedFile, IsMadeAnewAndReadableByAllWhateverTheMask) {
  writeFile(kFile, "old and long");
  ASSERT_EQ(chmod(kFile, 0600), 0);
  umask(077);
  const Stream stream = create(100);
  ASSERT_NE(stream, nullptr);
  struct stat status {};
  ASSERT_EQ(stat(kFile, &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
  EXPECT_EQ(status.st_size, 0);
}

TEST_F(BoundedFile, RemovesAPlantedLinkAndLeavesWhatItPointsTo) {
  writeFile("/tmp/victim", "victim");
  fs::create_symlink("/tmp/victim", kFile);
  const Stream stream = create(100);
  ASSERT_NE(stream, nullptr);
  std::fwrite("new", 1, 3, stream.get());
  EXPECT_EQ(readFile("/tmp/victim"), "victim");
  EXPECT_FALSE(fs::is_symlink(kFile));
  EXPECT_EQ(readFile(kFile), "new");
}

TEST_F(BoundedFile, RemovesAPlantedHardLinkAndLeavesTheOtherName) {
  writeFile("/tmp/victim", "victim");
  fs::create_hard_link("/tmp/victim", kFile);
  const Stream stream = create(100);
  ASSERT_NE(stream, nullptr);
  std::fwrite("new", 1, 3, stream.get());
  EXPECT_EQ(readFile("/tmp/victim"), "victim");
  EXPECT_EQ(readFile(kFile), "new");
}

TEST_F(BoundedFile, RemovesAPlantedFifoWithoutWaitingForAReader) {
  ASSERT_EQ(mkfifo(kFile, 0666), 0);
  const Stream stream = create(100);
  ASSERT_NE(stream, nullptr);
  EXPECT_TRUE(fs::is_regular_file(kFile));
}

TEST_F(BoundedFile, FailsOnAFolderEvenAnEmptyOne) {
  fs::create_directory(kFile);
  EXPECT_EQ(create(100), nullptr);
  EXPECT_TRUE(fs::is_directory(kFile));
}

TEST_F(BoundedFile, LeavesNoDescriptorBehind) {
  const int before = dup(0);
  close(before);
  create(100).reset();
  fs::remove(kFile);
  fs::create_directory(kFile);
  create(100).reset();
  EXPECT_EQ(dup(0), before);
}

}  // namespace
