#include "base/daemon_status.h"

#include <ctime>

namespace base {

namespace {

constexpr const char* kTimeForm = "%Y-%m-%dT%H:%M:%SZ";

std::string timeText(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  char text[sizeof "-2147481748-01-01T00:00:00Z"];
  gmtime_r(&time, &parts);
  return {text, std::strftime(text, sizeof text, kTimeForm, &parts)};
}

/// Removes `begin` from the front of `rest`. @return whether `rest` began with it
bool take(std::string_view& rest, std::string_view begin) {
  if (!rest.starts_with(begin)) return false;
  rest.remove_prefix(begin.size());
  return true;
}

/// Removes a time and the `end` after it from the front of `rest`. If `end` is empty, the time is
/// all of `rest`. @return false if `rest` does not begin like this
bool takeTime(std::string_view& rest, std::string_view end, std::int64_t& seconds) {
  const auto length = end.empty() ? rest.size() : rest.find(end);
  if (length == std::string_view::npos) return false;
  const std::string text(rest.substr(0, length));
  std::tm parts{};
  const char* const read = strptime(text.c_str(), kTimeForm, &parts);
  if (read == nullptr || *read != '\0') return false;
  seconds = timegm(&parts);
  rest.remove_prefix(length + end.size());
  return seconds > 0;
}

}  // namespace

std::string describe(const DaemonStatus& status) {
  std::string line = "mode " + status.mode;
  line += status.updated == 0 ? ", never updated" : ", updated " + timeText(status.updated);
  line += status.script == 0 ? "; no script" : "; script of " + timeText(status.script);
  if (status.walking != 0) line += "; walking since " + timeText(status.walking);
  if (status.walked == 0) return status.walking == 0 ? line + "; no walk" : line;
  return line + "; last walk " + timeText(status.walked) + ": " + status.result;
}

std::optional<DaemonStatus> parseDaemonStatus(std::string_view line) {
  DaemonStatus status;
  if (!take(line, "mode ")) return std::nullopt;
  status.mode = line.substr(0, line.find(','));
  line.remove_prefix(status.mode.size());
  if (!take(line, ", never updated; ") &&
      !(take(line, ", updated ") && takeTime(line, "; ", status.updated))) {
    return std::nullopt;
  }
  if (!take(line, "no script; ") &&
      !(take(line, "script of ") && takeTime(line, "; ", status.script))) {
    return std::nullopt;
  }
  if (line == "no walk") return status;
  if (take(line, "walking since ")) {
    if (takeTime(line, {}, status.walking)) return status;
    if (!takeTime(line, "; ", status.walking)) return std::nullopt;
  }
  if (!take(line, "last walk ") || !takeTime(line, ": ", status.walked)) return std::nullopt;
  status.result = line;
  return status;
}

}  // namespace base
