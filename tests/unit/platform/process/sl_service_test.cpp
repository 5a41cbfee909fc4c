#include "platform/process/sl_service.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace {

class Recorded : public SlService {
 public:
  explicit Recorded(std::string& calls) : mCalls(calls) {}
  ~Recorded() override { mCalls += "destroyed "; }
  void stop() override { mCalls += "stop "; }
  std::int32_t start() override {
    mCalls += "start ";
    return 5;
  }

 private:
  std::string& mCalls;
};

static_assert(std::is_abstract_v<SlService>);
static_assert(!std::is_copy_constructible_v<SlService>);

TEST(SlService, IsStartedStoppedAndDeletedThroughItsBase) {
  std::string calls;
  std::unique_ptr<SlService> service = std::make_unique<Recorded>(calls);
  EXPECT_EQ(service->start(), 5);
  service->stop();
  service.reset();
  EXPECT_EQ(calls, "start stop destroyed ");
}

// The order of the virtual table in the platform's C++ ABI: two destructors, then stop, then start.
TEST(SlService, HasItsSlotsInTheContractsOrder) {
  std::string calls;
  Recorded service(calls);
  SlService* const base = &service;
  using Stop = void (*)(SlService*);
  using Start = std::int32_t (*)(SlService*);
  void** const slots = *reinterpret_cast<void***>(base);
  reinterpret_cast<Stop>(slots[2])(base);
  EXPECT_EQ(reinterpret_cast<Start>(slots[3])(base), 5);
  EXPECT_EQ(calls, "stop start ");
}

}  // namespace
