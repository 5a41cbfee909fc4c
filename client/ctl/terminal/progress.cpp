#include "client/ctl/terminal/progress.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

namespace client {

namespace {

/// Time before the line first appears. A command that ends earlier shows no line.
constexpr std::chrono::seconds kFirstShown{1};
constexpr std::chrono::milliseconds kBetweenLines{100};
constexpr const char* kEraseLine = "\r\x1b[K";

bool isLineEditable() {
  const char* const terminal = std::getenv("TERM");
  return isatty(STDERR_FILENO) == 1 && terminal != nullptr && std::string_view(terminal) != "dumb";
}

}  // namespace

Progress::Progress(std::size_t all, bool isWanted)
    : mAll(all),
      mNext(std::chrono::steady_clock::now() + kFirstShown),
      mIsWanted(isWanted && isLineEditable()) {}

Progress::~Progress() {
  end();
}

void Progress::step() {
  ++mDone;
  if (!mIsWanted) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < mNext) return;
  mNext = now + kBetweenLines;
  mIsShown = true;
  // The cursor returns to the start, so that an alert of the script overwrites the line.
  std::cerr << kEraseLine << mDone << " of " << mAll << " URLs\r" << std::flush;
}

void Progress::end() {
  if (mIsShown) std::cerr << kEraseLine << std::flush;
  mIsShown = false;
}

}  // namespace client
