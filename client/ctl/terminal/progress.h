// The progress of a command that asks a script about many URLs: a line on the terminal, which
// counts them and disappears at the end.
#pragma once

#include <chrono>
#include <cstddef>

namespace client {

/// Shows the line "N of ALL URLs" on standard error, when one second has passed since the
/// construction. Shows nothing if standard error is no terminal, or if TERM is "dumb".
class Progress {
 public:
  /// @param all the number of URLs
  /// @param isWanted if false, the line is never shown
  explicit Progress(std::size_t all, bool isWanted = true);
  /// Does the same as end().
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Counts one URL. Shows the line at most ten times a second.
  void step();

  /// Erases the line. A command calls this function before it prints to the terminal.
  void end();

 private:
  std::size_t mAll;
  std::size_t mDone = 0;
  std::chrono::steady_clock::time_point mNext;  ///< when the line is shown again
  bool mIsWanted;
  bool mIsShown = false;
};

}  // namespace client
