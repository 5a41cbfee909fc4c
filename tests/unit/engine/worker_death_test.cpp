#include "tests/unit/engine/worker_death.h"

namespace {

using namespace worker_death;

TEST(WorkerDeath, CostsAtMostTheQuestionInFlight) {
  killAroundQuestions(30);
  expectNoChildren();
}

TEST(WorkerDeath, OfAStoppedWorkerCostsItsQuestion) {
  stopAroundQuestions(4, std::chrono::seconds(1));
  expectNoChildren();
}

TEST(WorkerDeath, EndsTheWorkerWhenTheEngineGoes) {
  auto engine = load(std::chrono::seconds(60));
  ASSERT_NE(engine, nullptr);
  const auto pid = engine->workerPid();
  engine.reset();
  EXPECT_EQ(kill(pid, 0), -1);
  expectNoChildren();
}

TEST(WorkerDeath, FollowsTheDeathOfTheProgram) {
  int pipes[2];
  ASSERT_EQ(pipe(pipes), 0);
  const pid_t program = fork();
  if (program == 0) {
    const auto engine = load(std::chrono::seconds(60));
    const pid_t worker = engine ? engine->workerPid() : 0;
    if (write(pipes[1], &worker, sizeof worker) != sizeof worker) _exit(1);
    kill(getpid(), SIGKILL);
  }
  pid_t worker = 0;
  ASSERT_EQ(read(pipes[0], &worker, sizeof worker), static_cast<ssize_t>(sizeof worker));
  ASSERT_GT(worker, 0);
  waitpid(program, nullptr, 0);
  // The new parent of the process may reap it late. A zombie also counts as ended.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const auto programOfWorker = "/proc/" + std::to_string(worker) + "/exe";
  const auto runs = [&] {
    std::error_code error;
    return std::filesystem::exists(std::filesystem::read_symlink(programOfWorker, error), error);
  };
  bool ended = !runs();
  while (!ended && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ended = !runs();
  }
  EXPECT_TRUE(ended);
}

}  // namespace
