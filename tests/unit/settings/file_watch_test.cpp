#include "settings/file_watch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

using namespace settings;

namespace {

struct EventCloser {
  void operator()(sd_event* event) const { sd_event_unref(event); }
};

class Watch : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/file_watch_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    mFolder = name;
    sd_event* event = nullptr;
    ASSERT_GE(sd_event_new(&event), 0);
    mEvent.reset(event);
  }
  void TearDown() override { std::filesystem::remove_all(mFolder); }

  /// Runs the event loop until `watch` has reported a change.
  void waitForChange() {
    const int changes = mChanges;
    while (mChanges == changes) ASSERT_GE(sd_event_run(mEvent.get(), 60'000'000), 1);
  }

  std::string mFolder;
  std::unique_ptr<sd_event, EventCloser> mEvent;
  int mChanges = 0;
};

using Places = std::vector<FileWatch::Place>;

TEST_F(Watch, AFileWithoutItsFolderIsWatchedFromTheNearestParent) {
  EXPECT_EQ(placesOf(mFolder + "/a/b/password"), (Places{{mFolder, "a"}}));
  std::filesystem::create_directory(mFolder + "/a");
  EXPECT_EQ(placesOf(mFolder + "/a/b/password"), (Places{{mFolder + "/a", "b"}}));
  std::filesystem::create_directory(mFolder + "/a/b");
  EXPECT_EQ(placesOf(mFolder + "/a/b/password"), (Places{{mFolder + "/a/b", "password"}}));
}

TEST_F(Watch, ALinkIsWatchedWithItsTargetAlsoIfTheTargetIsMissing) {
  std::filesystem::create_symlink("next", mFolder + "/first");
  std::filesystem::create_symlink(mFolder + "/run/stub", mFolder + "/next");
  EXPECT_EQ(placesOf(mFolder + "/first"),
            (Places{{mFolder, "first"}, {mFolder, "next"}, {mFolder, "run"}}));
  std::filesystem::create_directory(mFolder + "/run");
  EXPECT_EQ(placesOf(mFolder + "/first"),
            (Places{{mFolder, "first"}, {mFolder, "next"}, {mFolder + "/run", "stub"}}));
}

TEST_F(Watch, ALoopOfLinksEnds) {
  std::filesystem::create_symlink("loop", mFolder + "/loop");
  EXPECT_EQ(placesOf(mFolder + "/loop").front(), (FileWatch::Place{mFolder, "loop"}));
}

// If a place is new, the caller must read its file again: the file may have changed before the
// watch began.
TEST_F(Watch, ReportsWhetherAPlaceIsNew) {
  FileWatch watch(mEvent.get(), [this] { mChanges++; });
  EXPECT_TRUE(watch.set({{mFolder, "a"}}));
  EXPECT_FALSE(watch.set({{mFolder, "a"}}));
  EXPECT_TRUE(watch.set({{mFolder, "a"}, {mFolder, "b"}}));
  EXPECT_FALSE(watch.set({{mFolder, "b"}}));
  EXPECT_FALSE(watch.set({{mFolder, "b"}, {mFolder + "/missing", ""}}));
}

TEST_F(Watch, AnotherFolderWithTheSameNameIsANewPlace) {
  const std::string folder = mFolder + "/settings";
  std::filesystem::create_directory(folder);
  FileWatch watch(mEvent.get(), [this] { mChanges++; });
  EXPECT_TRUE(watch.set({{folder, ""}}));
  std::filesystem::rename(folder, mFolder + "/old");
  std::filesystem::create_directory(folder);
  EXPECT_TRUE(watch.set({{folder, ""}}));
  EXPECT_FALSE(watch.set({{folder, ""}}));
}

TEST_F(Watch, AFileInAFolderThatComesLaterIsFollowed) {
  const std::string path = mFolder + "/later/password";
  FileWatch watch(mEvent.get(), [&] {
    watch.set(placesOf(path));
    mChanges++;
  });
  watch.set(placesOf(path));
  std::filesystem::create_directory(mFolder + "/later");
  waitForChange();
  std::ofstream(path) << "x\n";
  waitForChange();
}

}  // namespace
