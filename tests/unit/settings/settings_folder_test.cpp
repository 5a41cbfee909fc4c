#include "settings/settings_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "base/unique_fd.h"

using namespace settings;

namespace {

class Folder : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/settings_folder_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    mPaths.folder = name;
    std::filesystem::create_directory(mPaths.folder + "/settings.d");
  }
  void TearDown() override { std::filesystem::remove_all(mPaths.folder); }

  std::string write(const std::string& name, const std::string& text, mode_t mode = 0644) {
    const std::string path = mPaths.folder + "/" + name;
    std::ofstream(path) << text;
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  /// The only problem, without the folder's name.
  std::string problem() {
    const auto read = readFolder(mPaths);
    if (read.problems.size() != 1) return std::to_string(read.problems.size()) + " problems";
    return read.problems[0].text.substr(mPaths.folder.size());
  }

  SettingsPaths mPaths;
};

TEST_F(Folder, ThatIsEmptyOrMissingSetsNothing) {
  EXPECT_FALSE(readFolder(mPaths).isFaulty());
  EXPECT_EQ(readFolder({"/nowhere", ""}).settings, FileSettings{});
  EXPECT_FALSE(readFolder({"/nowhere", ""}).isFaulty());
}

// Another program overwrites the file again and again.
TEST_F(Folder, NoticesAFileThatChangesWhileItIsRead) {
  const auto textOf = [](char c) {
    std::string text = "user = \"" + std::string(100, c) + "\"\n";
    while (text.size() < 50'000) text += "# " + std::string(97, c) + "\n";
    return text;
  };
  const std::string texts[] = {textOf('a'), textOf('b')};
  const auto path = write("settings.conf", texts[0]);
  std::atomic<bool> isEnough = false;
  std::thread writer([&] {
    const base::UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    for (std::size_t i = 0; !isEnough; i++) {
      static_cast<void>(pwrite(file.get(), texts[i % 2].data(), texts[i % 2].size(), 0));
    }
  });
  const auto isNoticed = [this] { return problem() == "/settings.conf: changes while it is read"; };
  int readings = 0;
  while (!isNoticed() && readings < 100'000) readings++;
  isEnough = true;
  writer.join();
  EXPECT_LT(readings, 100'000);
  const auto read = readFolder(mPaths);
  EXPECT_FALSE(read.isFaulty());
  EXPECT_EQ(read.settings.user->size(), 100U);
}

TEST_F(Folder, LaterNamesWin) {
  write("settings.conf", "mode = \"off\"\n");
  write("settings.d/20-b.conf", "mode = \"wpad\"\n");
  write("settings.d/10-a.conf", "mode = \"pacurl\"\npac-url = \"http://h/\"\n");
  write("settings.d/99-not.conf.bak", "mode = \"off\"\n");
  write("settings.d/.99-hidden.conf", "mode = \"off\"\n");
  const auto read = readFolder(mPaths);
  EXPECT_EQ(read.settings.mode, Mode::kWpad);
  EXPECT_EQ(read.settings.pacUrl, "http://h/");
  ASSERT_EQ(read.modeFiles.size(), 3U);
  EXPECT_EQ(read.modeFiles.back(), mPaths.folder + "/settings.d/20-b.conf");
}

// The file system may list the files in another order.
TEST_F(Folder, FilesAreReadInTheOrderOfTheirNames) {
  std::vector<std::string> names;
  for (int number = 35; number > 10; number--) {
    names.push_back(write("settings.d/" + std::to_string(number) + ".conf", "mode = \"off\"\n"));
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(readFolder(mPaths).modeFiles, names);
}

TEST_F(Folder, ABadLineIsNamedWithFileAndLine) {
  write("settings.d/1.conf", "\nmod = \"off\"\n");
  EXPECT_EQ(problem(), "/settings.d/1.conf:2: mod is not a known key");
  EXPECT_TRUE(readFolder(mPaths).isFaulty());
}

TEST_F(Folder, ALinkAFifoAndAForeignFileAreRefused) {
  ASSERT_EQ(symlink("/etc/passwd", (mPaths.folder + "/settings.d/1.conf").c_str()), 0);
  EXPECT_EQ(problem(), "/settings.d/1.conf: is a symbolic link");
  std::filesystem::remove(mPaths.folder + "/settings.d/1.conf");
  ASSERT_EQ(mkfifo((mPaths.folder + "/settings.d/1.conf").c_str(), 0600), 0);
  EXPECT_EQ(problem(), "/settings.d/1.conf: is not a regular file");
  std::filesystem::remove(mPaths.folder + "/settings.d/1.conf");
  if (geteuid() != 0) return;
  const auto path = write("settings.d/1.conf", "");
  ASSERT_EQ(chown(path.c_str(), 4711, 4711), 0);
  EXPECT_EQ(problem(), "/settings.d/1.conf: belongs neither to root nor to the service's user");
}

TEST_F(Folder, AFileAtTheLimitIsReadAndOnePastItIsNot) {
  write("settings.conf", std::string(kMaxFileBytes - 1, ' ') + "\n");
  EXPECT_FALSE(readFolder(mPaths).isFaulty());
  write("settings.conf", std::string(kMaxFileBytes, ' ') + "\n");
  EXPECT_EQ(problem(), "/settings.conf: is too long");
}

TEST_F(Folder, AsManyFilesAsTheLimitAreReadAndOneMoreIsAProblem) {
  for (std::size_t i = 0; i < kMaxFiles; i++) {
    write("settings.d/" + std::to_string(i) + ".conf", "");
  }
  EXPECT_FALSE(readFolder(mPaths).isFaulty());
  write("settings.d/more.conf", "");
  EXPECT_EQ(problem(), "/settings.d: contains more than 64 files");
}

TEST_F(Folder, APasswordFileIsReadUpToItsLinesEnd) {
  const auto file = write("secret", "geheim\n", 0640);
  write("settings.conf", "password-file = \"" + file + "\"\n");
  const auto read = readFolder(mPaths);
  EXPECT_FALSE(read.isFaulty());
  EXPECT_EQ(read.password, "geheim");
}

TEST_F(Folder, APasswordFileForEverybodyIsRefused) {
  const auto file = write("secret", "geheim\n", 0644);
  write("settings.conf", "password-file = \"" + file + "\"\n");
  EXPECT_EQ(problem(),
            "/secret: the password file must not be accessible to everybody (mode 0640)");
  EXPECT_TRUE(readFolder(mPaths).password.empty());
}

TEST_F(Folder, APasswordAtTheLimitIsReadAndOnePastItIsNot) {
  const auto file = write("secret", std::string(kMaxPasswordBytes, 'p') + "\n", 0600);
  write("settings.conf", "password-file = \"" + file + "\"\n");
  EXPECT_EQ(readFolder(mPaths).password.size(), kMaxPasswordBytes);
  write("secret", std::string(kMaxPasswordBytes + 1, 'p') + "\n", 0600);
  EXPECT_TRUE(readFolder(mPaths).isFaulty());
}

TEST_F(Folder, APasswordInASettingsFileNeedsMode0600AndIsWarnedOf) {
  write("settings.conf", "password = \"geheim\"\n", 0640);
  EXPECT_EQ(problem(),
            "/settings.conf: contains a password, so its mode must be 0600 (or use password-file)");
  write("settings.conf", "password = \"geheim\"\n", 0600);
  const auto read = readFolder(mPaths);
  EXPECT_FALSE(read.isFaulty());
  EXPECT_EQ(read.password, "geheim");
  EXPECT_EQ(problem(), "/settings.conf: contains a password: password-file is safer");
}

TEST_F(Folder, APasswordInAProxysUrlMustNotBeReadableByEverybody) {
  const std::string text = "mode = \"manual\"\nproxy-url = \"http://u:p@h:1\"\n";
  write("settings.conf", text, 0644);
  EXPECT_EQ(problem(),
            "/settings.conf: proxy-url contains a password, so the file must not be readable by "
            "everybody");
  write("settings.conf", text, 0640);
  EXPECT_TRUE(readFolder(mPaths).problems.empty());
}

TEST_F(Folder, APasswordInAScriptsUrlMustNotBeReadableByEverybody) {
  const std::string text = "mode = \"pacurl\"\npac-url = \"http://u:p@h/proxy.pac\"\n";
  write("settings.conf", text, 0644);
  EXPECT_EQ(problem(),
            "/settings.conf: pac-url contains a password, so the file must not be readable by "
            "everybody");
  write("settings.conf", text, 0640);
  EXPECT_TRUE(readFolder(mPaths).problems.empty());
  write("settings.conf", "mode = \"pacurl\"\npac-url = \"http://h/p@q.pac\"\n", 0644);
  EXPECT_TRUE(readFolder(mPaths).problems.empty());
}

// The bus library refuses such texts, so the daemon could never get them.
TEST_F(Folder, APasswordFileThatTheBusCannotTransportIsNamed) {
  const auto file = mPaths.folder + "/secret";
  write("settings.conf", "password-file = \"" + file + "\"\n");
  for (const std::string text : {"gr\xfc\xdf"
                                 "e\n",
                                 "\xef\xbf\xbe\n", "\xed\xa0\x80\n", "half\xc3"}) {
    write("secret", text, 0640);
    EXPECT_EQ(problem(), "/secret: the password file must be text in UTF-8") << text;
    EXPECT_TRUE(readFolder(mPaths).password.empty());
  }
  write("secret", std::string("ab\0cd\n", 6), 0640);
  EXPECT_EQ(problem(), "/secret: the password file must be text in UTF-8");
  write("secret", "gr\u00fc\u00dfe\n", 0640);
  EXPECT_EQ(readFolder(mPaths).password, "gr\u00fc\u00dfe");
}

TEST_F(Folder, ACredentialIsReadFromItsFolder) {
  write("settings.conf", "password-credential = \"proxy\"\n");
  EXPECT_TRUE(readFolder(mPaths).isFaulty());
  mPaths.credentials = mPaths.folder;
  write("proxy", "geheim", 0400);
  EXPECT_EQ(readFolder(mPaths).password, "geheim");
}

TEST_F(Folder, AModeWithoutItsUrlIsAProblem) {
  write("settings.conf", "mode = \"manual\"\n");
  EXPECT_EQ(problem(), ": mode is \"manual\", and proxy-url is not set");
}

}  // namespace
