#include "tests/unit/engine/worker_death.h"

namespace {

using namespace worker_death;

TEST(WorkerDeathLong, CostsAtMostTheQuestionInFlightAThousandTimes) {
  killAroundQuestions(1000);
  expectNoChildren();
}

TEST(WorkerDeathLong, OfAStoppedWorkerCostsItsQuestionFortyTimes) {
  stopAroundQuestions(40, std::chrono::milliseconds(500));
  expectNoChildren();
}

TEST(WorkerDeathLong, OfAStoppedWorkerComesAfterFiveSeconds) {
  stopAroundQuestions(2, std::chrono::seconds(5));
  expectNoChildren();
}

}  // namespace
