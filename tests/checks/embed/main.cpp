// Uses this tree from another project: links, runs, and gets an answer.
#include <unistd.h>

#include <cstdio>

#include "base/log_line.h"
#include "platform/process/crash_handler.h"
#include "platform/process/thread_name.h"

int main() {
  if (initCrashHandler() != 0) return 1;
  if (pthread_name_np(gettid(), "embed") != 0) return 2;
  logLine(LOG_DEBUG, "embed: linked");
  std::puts("linked");
  return 0;
}
