#include "fetcher/target_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/own_root_test.h"

namespace fs = std::filesystem;

namespace {

constexpr char kFile[] = "/tmp/target";
constexpr uid_t kStranger = 4711;

class TargetFile : public OwnRootTest {
 protected:
  /// Makes the file and writes to it.
  static bool create() {
    const auto file = fetcher::createTargetFile(kFile);
    return file && write(file.get(), "new", 3) == 3;
  }
  static void expectNothingElse() {
    for (const auto& entry : fs::directory_iterator("/tmp")) {
      EXPECT_NE(entry.path().string().rfind(std::string(kFile) + ".", 0), 0u) << entry.path();
    }
  }
};

TEST_F(TargetFile, IsNewWithTheModeOfAnOrdinaryFile) {
  writeFile(kFile, "old and long");
  ASSERT_EQ(chmod(kFile, 0600), 0);
  umask(022);
  ASSERT_TRUE(create());
  struct stat status {};
  ASSERT_EQ(stat(kFile, &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
  EXPECT_EQ(status.st_nlink, 1u);
  EXPECT_EQ(readFile(kFile), "new");
  expectNothingElse();
}

TEST_F(TargetFile, ReplacesAPlantedLinkAndLeavesWhatItPointsTo) {
  writeFile("/tmp/victim", "victim");
  fs::create_symlink("/tmp/victim", kFile);
  ASSERT_TRUE(create());
  EXPECT_EQ(readFile("/tmp/victim"), "victim");
  EXPECT_FALSE(fs::is_symlink(kFile));
  EXPECT_EQ(readFile(kFile), "new");
  expectNothingElse();
}

TEST_F(TargetFile, ReplacesAPlantedHardLinkAndLeavesTheOtherName) {
  writeFile("/tmp/victim", "victim");
  fs::create_hard_link("/tmp/victim", kFile);
  ASSERT_TRUE(create());
  EXPECT_EQ(readFile("/tmp/victim"), "victim");
  EXPECT_EQ(readFile(kFile), "new");
}

TEST_F(TargetFile, ReplacesAPlantedFifoWithoutWaitingForAReader) {
  ASSERT_EQ(mkfifo(kFile, 0666), 0);
  ASSERT_TRUE(create());
  EXPECT_TRUE(fs::is_regular_file(kFile));
}

TEST_F(TargetFile, IsNoneOnAFolderOfRootEvenAnEmptyOne) {
  fs::create_directory(kFile);
  EXPECT_FALSE(create());
  EXPECT_EQ(errno, EISDIR);
  EXPECT_TRUE(fs::is_directory(kFile));
  expectNothingElse();
}

TEST_F(TargetFile, MovesAFolderOfAnotherUserAside) {
  fs::create_directory(kFile);
  writeFile(std::string(kFile) + "/file", "theirs");
  ASSERT_EQ(chown(kFile, kStranger, kStranger), 0);
  ASSERT_TRUE(create());
  EXPECT_EQ(readFile(kFile), "new");
  std::string aside;
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    const std::string path = entry.path();
    if (path.rfind("/tmp/target.aside.", 0) == 0) aside = path;
  }
  EXPECT_EQ(readFile(aside + "/file"), "theirs");
}

TEST_F(TargetFile, IsNoneInAFolderThatIsMissing) {
  EXPECT_FALSE(fetcher::createTargetFile("/tmp/none/file"));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(TargetFile, LeavesNoDescriptorBehind) {
  const int before = dup(0);
  close(before);
  create();
  fs::remove(kFile);
  fs::create_directory(kFile);
  create();
  EXPECT_EQ(dup(0), before);
}

TEST_F(TargetFile, LeftOnTheWayIsRemovedIfItIsOurs) {
  const std::string ours = std::string(kFile) + ".0123456789abcdef";
  const std::string theirs = std::string(kFile) + ".fedcba9876543210";
  const std::string link = std::string(kFile) + ".0000000000000000";
  for (const std::string& name : {ours, theirs, ours + "0", std::string(kFile)}) {
    writeFile(name, "");
  }
  fs::create_symlink("/tmp/victim", link);
  ASSERT_EQ(chown(theirs.c_str(), kStranger, kStranger), 0);
  fetcher::removeLeftTargets(kFile);
  EXPECT_FALSE(fs::exists(ours));
  EXPECT_FALSE(fs::exists(kFile)) << "half a download";
  for (const std::string& name : {theirs, ours + "0"}) EXPECT_TRUE(fs::exists(name)) << name;
  EXPECT_TRUE(fs::is_symlink(link));
}

TEST_F(TargetFile, OfAnotherKindOrUserStaysWhenWhatIsLeftIsRemoved) {
  fs::create_symlink("/tmp/victim", kFile);
  fetcher::removeLeftTargets(kFile);
  EXPECT_TRUE(fs::is_symlink(kFile));
  fs::remove(kFile);
  writeFile(kFile, "theirs");
  ASSERT_EQ(chown(kFile, kStranger, kStranger), 0);
  fetcher::removeLeftTargets(kFile);
  EXPECT_TRUE(fs::exists(kFile));
}

}  // namespace
