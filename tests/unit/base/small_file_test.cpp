#include "base/small_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "tests/support/own_root.h"

using base::FileDemands;
using base::FileOwner;
using base::FileProblem;
using base::readFile;

namespace {

namespace fs = std::filesystem;

constexpr char kFile[] = "/tmp/file";
constexpr FileDemands kOurs{.mostBytes = 100};
constexpr FileDemands kAnybodys{.mostBytes = 100, .owner = FileOwner::anybody};
constexpr uid_t kSomebody = 12345;

class SmallFile : public testing::Test {
 protected:
  void SetUp() override { enterOwnRoot(); }
};

void expectRefused(const char* path, const FileDemands& demands, FileProblem problem, int error) {
  const auto file = readFile(path, demands);
  EXPECT_TRUE(file.failure);
  EXPECT_EQ(file.failure.problem, problem) << path;
  EXPECT_EQ(file.failure.error, error) << path;
  EXPECT_EQ(file.text, "");
  const auto opened = base::openFile(path, demands);
  if (problem == FileProblem::tooLong && opened.status.st_size == 0)
    return;  // the size of files of /proc is 0, so only a read finds that they are too long
  EXPECT_EQ(opened.failure.problem, problem) << path;
  EXPECT_FALSE(opened.fd);
}

TEST_F(SmallFile, IsReadWholeToTheLimitAndNotPastIt) {
  std::ofstream(kFile) << "12345678";
  const auto file = readFile(kFile, {.mostBytes = 8});
  EXPECT_FALSE(file.failure);
  EXPECT_EQ(file.failure.error, 0);
  EXPECT_EQ(file.text, "12345678");
  expectRefused(kFile, {.mostBytes = 7}, FileProblem::tooLong, EFBIG);
  std::ofstream(kFile, std::ios::trunc).flush();
  EXPECT_FALSE(readFile(kFile, {.mostBytes = 0}).failure);
}

TEST_F(SmallFile, IsReadInAsManyPiecesAsItNeeds) {
  std::string text;
  for (int line = 0; line < 3000; ++line) text += std::to_string(line) + '\n';
  std::ofstream(kFile) << text;
  EXPECT_EQ(readFile(kFile, {.mostBytes = text.size()}).text, text);
  expectRefused(kFile, {.mostBytes = text.size() - 1}, FileProblem::tooLong, EFBIG);
}

// Files of /proc report the size 0.
TEST_F(SmallFile, IsHeldToTheLimitWhenItDoesNotKnowItsSize) {
  const auto file = readFile("/proc/self/status", {.mostBytes = 100});
  EXPECT_EQ(file.failure.problem, FileProblem::tooLong);
  EXPECT_EQ(file.text, "");
}

TEST_F(SmallFile, ThatIsMissingIsToldFromOneThatCannotBeOpened) {
  expectRefused("/tmp/none", kOurs, FileProblem::missing, ENOENT);
  std::ofstream(kFile) << "x";
  expectRefused("/tmp/file/below", kOurs, FileProblem::failed, ENOTDIR);
  fs::permissions("/tmp", fs::perms::all);
  fs::permissions(kFile, fs::perms::none);
  if (seteuid(kSomebody) != 0) GTEST_SKIP() << "needs a second user";
  expectRefused(kFile, kOurs, FileProblem::failed, EACCES);
  // Back to root: the leak check at the end needs a process that may be traced.
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
}

TEST_F(SmallFile, OfAnotherUserIsAcceptedOnlyIfAnybodysIs) {
  std::ofstream(kFile) << "theirs";
  if (chown(kFile, kSomebody, kSomebody) != 0) GTEST_SKIP() << "needs a second user";
  expectRefused(kFile, kOurs, FileProblem::otherOwner, EPERM);
  EXPECT_EQ(readFile(kFile, kAnybodys).text, "theirs");
}

TEST_F(SmallFile, MayBeRootsWhenReadByAnother) {
  std::ofstream(kFile) << "roots";
  if (seteuid(kSomebody) != 0) GTEST_SKIP() << "needs a second user";
  EXPECT_EQ(readFile(kFile, kOurs).text, "roots");
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
}

TEST_F(SmallFile, IsReadThroughALinkOnlyIfThatIsAllowed) {
  std::ofstream(kFile) << "behind";
  fs::create_symlink(kFile, "/tmp/link");
  expectRefused("/tmp/link", kOurs, FileProblem::link, ELOOP);
  EXPECT_EQ(readFile("/tmp/link", {.mostBytes = 100, .followsLink = true}).text, "behind");
}

TEST_F(SmallFile, WithASecondNameIsReadOnlyIfThatIsAllowed) {
  std::ofstream(kFile) << "two names";
  fs::create_hard_link(kFile, "/tmp/second");
  expectRefused(kFile, kOurs, FileProblem::secondName, EMLINK);
  EXPECT_EQ(readFile(kFile, {.mostBytes = 100, .acceptsSecondName = true}).text, "two names");
  fs::remove("/tmp/second");
  EXPECT_EQ(readFile(kFile, kOurs).text, "two names");
}

TEST_F(SmallFile, IsNoFifoFolderOrDeviceAndIsNotWaitedFor) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  expectRefused("/tmp/fifo", kAnybodys, FileProblem::notRegular, EINVAL);
  expectRefused("/tmp", kAnybodys, FileProblem::notRegular, EINVAL);
  expectRefused("/dev/null", kAnybodys, FileProblem::notRegular, EINVAL);
}

TEST_F(SmallFile, ThatIsOpenedComesWithWhatIsKnownOfIt) {
  std::ofstream(kFile) << "text";
  const auto file = base::openFile(kFile, kOurs);
  ASSERT_FALSE(file.failure);
  EXPECT_EQ(file.status.st_size, 4);
  EXPECT_EQ(file.status.st_uid, geteuid());
  EXPECT_EQ(fcntl(file.fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(base::readToEnd(file.fd.get(), 4).text, "text");
}

TEST_F(SmallFile, ReportsADescriptorThatCannotBeRead) {
  const auto file = base::readToEnd(-1, 100);
  EXPECT_EQ(file.failure.problem, FileProblem::failed);
  EXPECT_EQ(file.failure.error, EBADF);
}

// The limit also counts bytes that are read in the second piece.
TEST_F(SmallFile, ThatGrewIsHeldToTheLimit) {
  std::ofstream(kFile) << std::string(5000, 'x');
  const base::UniqueFd file(open(kFile, O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(base::readToEnd(file.get(), 4999).failure.problem, FileProblem::tooLong);
  ASSERT_EQ(lseek(file.get(), 0, SEEK_SET), 0);
  EXPECT_EQ(base::readToEnd(file.get(), 5000).text.size(), 5000U);
}

// A pipe whose reader sleeps, so that signals arrive during its read.
TEST(ReadToEnd, IsNotEndedByASignal) {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART, the signal interrupts read()
  sigaction(SIGUSR1, &action, nullptr);
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const base::UniqueFd output(ends[0]);
  base::UniqueFd input(ends[1]);
  std::string read;
  std::thread reader([&] { read = base::readToEnd(output.get(), 100).text; });
  for (int i = 0; i < 50; ++i) {
    pthread_kill(reader.native_handle(), SIGUSR1);
    const timespec pause{0, 1'000'000};
    nanosleep(&pause, nullptr);
  }
  ASSERT_EQ(write(input.get(), "all of it", 9), 9);
  input.reset();
  reader.join();
  EXPECT_EQ(read, "all of it");
}

}  // namespace
