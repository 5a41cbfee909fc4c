#include "tests/unit/pac_engine/worker_death.h"

namespace {

using namespace worker_death;

TEST(WorkerDeathLong, CostsAtMostTheQuestionInFlightAThousandTimes) {
  killAroundQuestions(1000);
  expectNoChildren();
}

TEST(WorkerDeathLong, OfAStoppedWorkerCostsItsQuestionTwentyTimes) {
  stopAroundQuestions(20, std::chrono::milliseconds(150));
  expectNoChildren();
}

TEST(WorkerDeathLong, OfAStoppedWorkerComesAfterFiveSeconds) {
  stopAroundQuestions(1, std::chrono::seconds(5));
  expectNoChildren();
}

}  // namespace
