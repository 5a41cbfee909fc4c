// A stand-in for the daemon, which gives the answer that the URL asks for.
#pragma once

#include <sys/types.h>

/// A process on the system bus of this process that has the daemon's name until the end of this.
///
/// It answers "http://MODE/?ENTRY;ENTRY" with the mode and the entries, in which "_" is a blank; of
/// the mode "hold" it only notes the question.
class StandIn {
 public:
  /// Returns once it has the name. Before the process has a second thread.
  StandIn();
  ~StandIn();
  StandIn(const StandIn&) = delete;
  StandIn& operator=(const StandIn&) = delete;

  /// Waits until it has been asked once more than this has been called.
  void waitUntilAsked() const;

  /// Whether it has been asked more often than waitUntilAsked() has been called.
  bool hasBeenAsked() const;

 private:
  pid_t mPid = -1;
  int mAsked = -1;  ///< a byte for each question
};
