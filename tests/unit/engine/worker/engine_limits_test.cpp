// Tests the heap and the stack of a script, at the limit and one step past it.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/unit/engine/worker/engine_fixture.h"

namespace pac_worker {
namespace {

constexpr std::size_t kHeap = 64U << 20U;
constexpr std::size_t kStack = 512U << 10U;

const std::string kPassed = "!the heap limit of 65536 KiB was passed";

class Limits : public EngineTest {};

/// Whether the loaded script can allocate a buffer of `bytes` bytes. The buffer is freed
/// afterwards.
bool hasRoomFor(ScriptEngine& engine, std::size_t bytes) {
  return engine.evaluate("http://h/", std::to_string(bytes)).result == "room";
}

TEST_F(Limits, HeapIsGrantedToTheLastByteAndNotPastIt) {
  ASSERT_EQ(load("function FindProxyForURL(url, host) { new ArrayBuffer(+host); return 'room'; }"),
            "");
  std::size_t granted = 0;
  std::size_t refused = 2 * kHeap;
  while (refused - granted > 1) {
    const std::size_t middle = granted + (refused - granted) / 2;
    (hasRoomFor(*mEngine, middle) ? granted : refused) = middle;
  }
  // The language itself and the script use the rest of the limit.
  EXPECT_LT(granted, kHeap);
  EXPECT_GT(granted, kHeap - (1U << 20U));
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(hasRoomFor(*mEngine, granted)) << "the one before has been given back";
    EXPECT_EQ(ask("http://h/", std::to_string(granted + 1)), kPassed);
  }
}

TEST_F(Limits, HeapThatIsHeldCountsInLaterEvaluations) {
  ASSERT_EQ(load("var held = []; function FindProxyForURL(url, host) {"
                 "  held.push(new ArrayBuffer(+host)); return String(held.length); }"),
            "");
  const std::string third = std::to_string(kHeap / 3);
  EXPECT_EQ(ask("http://h/", third), "1");
  EXPECT_EQ(ask("http://h/", third), "2");
  EXPECT_EQ(ask("http://h/", third), kPassed);
  EXPECT_EQ(ask("http://h/", "1"), "1") << "a heap that stays full is given up";
}

/// Measures how much native stack a script uses when it calls helpers.
class StackGauge : public FakeEnvironment {
 public:
  void alert(std::string_view) override {
    const char here = 0;
    const auto address = reinterpret_cast<std::uintptr_t>(&here);
    if (mTop == 0) mTop = address;
    mDeepest = mTop - address;
  }
  std::size_t deepest() const { return mDeepest; }

 private:
  std::uintptr_t mTop = 0;
  std::size_t mDeepest = 0;
};

#ifndef __SANITIZE_ADDRESS__  // with the sanitizer, frames are not on the stack
TEST(StackLimit, IsReachedAndNotPassed) {
  StackGauge gauge;
  ScriptLimits limits;
  limits.time = std::chrono::seconds(60);  // long enough for a slow machine
  ScriptEngine engine(gauge, limits);
  ASSERT_FALSE(engine.load(
      "function FindProxyForURL(url, host) { alert('x'); return deeper(0); }"
      "function deeper(n) { alert('x');"
      "  try { return deeper(n + 1); } catch (e) { return e.name + ': ' + e.message; } }"));
  const auto reply = engine.evaluate("http://h/", "h");
  EXPECT_EQ(reply.result, "RangeError: Maximum call stack size exceeded") << "caught by the script";
  // For the last call, the space for one frame of the interpreter (less than 1 KiB) was missing.
  // The gauge measures only from the first alert to the last one, so it misses a few frames.
  EXPECT_LE(gauge.deepest(), kStack);
  EXPECT_GT(gauge.deepest(), kStack - (4U << 10U));
}
#endif

}  // namespace
}  // namespace pac_worker
