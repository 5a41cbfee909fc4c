#include "platform/netservice/watched_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/own_root.h"

namespace fs = std::filesystem;

namespace {

using netservice::WatchedFile;

constexpr char kFile[] = "/tmp/watched";

std::string contents(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}
void put(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

class InPlace : public testing::Test {
 protected:
  void SetUp() override { enterOwnRoot(); }
  static int replace(const std::string& text) {
    WatchedFile file;
    const int trouble = file.open(kFile);
    return trouble != 0 ? trouble : file.replace(text);
  }
};

TEST_F(InPlace, KeepsTheFileAndItsMode) {
  put(kFile, "a longer old text\n");
  fs::permissions(kFile, fs::perms(0640));
  struct stat before {};
  stat(kFile, &before);
  EXPECT_EQ(replace("new\n"), 0);
  struct stat after {};
  stat(kFile, &after);
  EXPECT_EQ(contents(kFile), "new\n");
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(replace("a text that is longer\n"), 0);
  EXPECT_EQ(contents(kFile), "a text that is longer\n");
}

TEST_F(InPlace, MakesAMissingFileReadableByAllWhateverTheMask) {
  umask(077);
  EXPECT_EQ(replace("new\n"), 0);
  struct stat status {};
  stat(kFile, &status);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
  EXPECT_EQ(contents(kFile), "new\n");
}

TEST_F(InPlace, TouchesNothingWhereTheTextIsTheSame) {
  put(kFile, "same\n");
  const int watch = inotify_init1(IN_NONBLOCK);
  inotify_add_watch(watch, kFile, IN_MODIFY | IN_ATTRIB);
  char events[4096];
  EXPECT_EQ(replace("same\n"), 0);
  EXPECT_EQ(read(watch, events, sizeof events), -1);
  EXPECT_EQ(replace("other\n"), 0);
  EXPECT_GT(read(watch, events, sizeof events), 0);
  close(watch);
}

TEST_F(InPlace, NeverShowsAReaderAnEmptyFile) {
  const std::string longer = "first='a long value of a lease'\nlast='x'\n";
  const std::string shorter = "first='b'\n";
  put(kFile, longer);
  std::atomic<bool> done{false};
  int reads = 0;
  int empty = 0;
  std::thread reader([&] {
    while (!done || reads == 0) {
      const std::string text = contents(kFile);
      if (text.empty()) ++empty;
      ++reads;
    }
  });
  for (int i = 0; i < 20000; ++i) EXPECT_EQ(replace(i % 2 == 0 ? shorter : longer), 0);
  done = true;
  reader.join();
  EXPECT_EQ(empty, 0) << "of " << reads;
}

TEST_F(InPlace, MendsAFileThatIsFarTooLong) {
  put(kFile, std::string(200000, 'x'));
  EXPECT_EQ(replace("new\n"), 0);
  EXPECT_EQ(contents(kFile), "new\n");
}

TEST_F(InPlace, LeavesWhatALinkPointsTo) {
  put("/tmp/victim", "victim");
  fs::create_symlink("/tmp/victim", kFile);
  EXPECT_EQ(replace("new\n"), ELOOP);
  EXPECT_EQ(contents("/tmp/victim"), "victim");
  fs::remove(kFile);
  fs::create_symlink("/tmp/nowhere", kFile);
  EXPECT_EQ(replace("new\n"), ELOOP);
  EXPECT_FALSE(fs::exists("/tmp/nowhere"));
}

TEST_F(InPlace, LeavesAFileWithASecondName) {
  put("/tmp/victim", "victim");
  fs::create_hard_link("/tmp/victim", kFile);
  EXPECT_EQ(replace("new\n"), EMLINK);
  EXPECT_EQ(contents("/tmp/victim"), "victim");
}

TEST_F(InPlace, NeitherWaitsForAFifoNorTakesAFolder) {
  ASSERT_EQ(mkfifo(kFile, 0666), 0);
  EXPECT_EQ(replace("new\n"), EINVAL);
  fs::remove(kFile);
  fs::create_directory(kFile);
  EXPECT_EQ(replace("new\n"), EISDIR);
}

TEST_F(InPlace, LeavesAnotherUsersFile) {
  put(kFile, "theirs");
  if (chown(kFile, 12345, 12345) != 0) GTEST_SKIP() << "needs a second user";
  EXPECT_EQ(replace("new\n"), EPERM);
  EXPECT_EQ(contents(kFile), "theirs");
}

TEST_F(InPlace, NeedsTheFolder) {
  WatchedFile file;
  EXPECT_EQ(file.open("/tmp/nowhere/file"), ENOENT);
}

}  // namespace
