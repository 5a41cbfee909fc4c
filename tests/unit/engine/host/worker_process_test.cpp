#include "engine/host/worker_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>

#include "engine/pac_engine.h"

namespace {

using namespace pac_engine;

TEST(SealedScript, CanBeReadAndNeverChanged) {
  const auto file = sealedScript("text");
  ASSERT_TRUE(file);
  char bytes[8] = {};
  EXPECT_EQ(pread(file.get(), bytes, sizeof bytes, 0), 4);
  EXPECT_STREQ(bytes, "text");
  EXPECT_EQ(fcntl(file.get(), F_GET_SEALS),
            F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
  EXPECT_EQ(pwrite(file.get(), "x", 1, 0), -1);
  EXPECT_EQ(ftruncate(file.get(), 0), -1);
  EXPECT_EQ(mmap(nullptr, 4, PROT_WRITE, MAP_SHARED, file.get(), 0), MAP_FAILED);
}

TEST(SealedScript, IsNotInheritedByOtherPrograms) {
  EXPECT_EQ(fcntl(sealedScript("").get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(WorkerProgram, LiesInTheLibexecFolderBesideThatOfTheProgram) {
  const auto own = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(workerProgram(),
            own.parent_path().parent_path() / "libexec" / "proxymanager-pac-worker");
}

TEST(WorkerProcess, StartsForAProgramWithoutStandardDescriptors) {
  close(STDIN_FILENO);
  Problem problem;
  const auto engine =
      Engine::load("function FindProxyForURL() { return 'DIRECT'; }", Options{}, problem);
  ASSERT_NE(engine, nullptr) << problem.message;
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "DIRECT");
}

TEST(WorkerProcess, IsOnTheCpuOfWhoAsks) {
  Problem problem;
  const auto engine =
      Engine::load("function FindProxyForURL() { return 'DIRECT'; }", Options{}, problem);
  ASSERT_NE(engine, nullptr) << problem.message;
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
  for (std::size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(cpu, &only);
    ASSERT_EQ(sched_setaffinity(0, sizeof only, &only), 0);
    ASSERT_TRUE(engine->evaluate("http://h/", "h").result);
    cpu_set_t worker;
    ASSERT_EQ(sched_getaffinity(engine->workerPid(), sizeof worker, &worker), 0);
    EXPECT_TRUE(CPU_EQUAL(&worker, &only)) << cpu;
  }
}

}  // namespace
