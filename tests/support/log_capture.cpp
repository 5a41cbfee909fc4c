#include "tests/support/log_capture.h"

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>
#include <ostream>

namespace {

// Never destroyed: threads may log lines until the process ends.
struct Captured {
  std::mutex mutex;
  std::condition_variable said;
  std::vector<LogLine> lines;
  std::optional<std::string> leftOut;
};

Captured& captured() {
  static auto& instance = *new Captured;
  return instance;
}

__attribute__((format(printf, 2, 0))) void capture(int priority, const char* format,
                                                   va_list arguments) try {
  if ((setlogmask(0) & LOG_MASK(LOG_PRI(priority))) == 0) return;
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<std::size_t>(std::max(length, 0)) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  auto& all = captured();
  const std::lock_guard lock(all.mutex);
  if (text == all.leftOut) return;
  all.lines.push_back({LOG_PRI(priority), std::move(text)});
  all.said.notify_all();
} catch (const std::bad_alloc&) {
  // The line is lost, because syslog must not throw an exception.
}

int countLocked(const Captured& all, int priority, const std::string& text) {
  return static_cast<int>(std::count(all.lines.begin(), all.lines.end(), LogLine{priority, text}));
}

}  // namespace

// With _FORTIFY_SOURCE the compiler calls the __*_chk functions, otherwise the ordinary ones.
extern "C" {
void vsyslog(int priority, const char* format, va_list arguments) {
  capture(priority, format, arguments);
}
__attribute__((format(printf, 3, 0))) void __vsyslog_chk(int priority, int, const char* format,
                                                         va_list arguments) {
  capture(priority, format, arguments);
}
void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  capture(priority, format, arguments);
  va_end(arguments);
}
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, const char* format,
                                                        ...) {
  va_list arguments;
  va_start(arguments, format);
  capture(priority, format, arguments);
  va_end(arguments);
}
}

std::ostream& operator<<(std::ostream& stream, const LogLine& line) {
  return stream << "<" << line.priority << ">\"" << line.text << "\"";
}

void leaveOutOfLog(const std::optional<std::string>& text) {
  auto& all = captured();
  const std::lock_guard lock(all.mutex);
  all.leftOut = text;
}

std::vector<LogLine> logLines() {
  auto& all = captured();
  const std::lock_guard lock(all.mutex);
  return all.lines;
}

void clearLog() {
  auto& all = captured();
  const std::lock_guard lock(all.mutex);
  all.lines.clear();
}

int countLog(int priority, const std::string& text) {
  auto& all = captured();
  const std::lock_guard lock(all.mutex);
  return countLocked(all, priority, text);
}

bool waitForLog(int priority, const std::string& text, int times) {
  auto& all = captured();
  std::unique_lock lock(all.mutex);
  return all.said.wait_for(lock, std::chrono::seconds(60),
                           [&] { return countLocked(all, priority, text) >= times; });
}
