#include "tests/fuzz/support/log.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

// Longest line that a check sees. A longer line is still formatted completely, and then cut.
constexpr std::size_t kLineBytes = std::size_t{64} << 10U;

__attribute__((format(printf, 2, 0))) void take(int priority, const char* format,
                                                va_list arguments) {
  static thread_local char line[kLineBytes];
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  if (fuzz::onLogLine == nullptr || length < 0) return;
  fuzz::onLogLine(LOG_PRI(priority),
                  {line, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof line - 1)});
}

}  // namespace

// With _FORTIFY_SOURCE, the compiler calls the __*_chk functions, else the ordinary ones.
extern "C" {
void vsyslog(int priority, const char* format, va_list arguments) {
  take(priority, format, arguments);
}
__attribute__((format(printf, 3, 0))) void __vsyslog_chk(int priority, int, const char* format,
                                                         va_list arguments) {
  take(priority, format, arguments);
}
}
