#include "platform/process/trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "base/ascii.h"
#include "base/file_name.h"
#include "base/log_line.h"
#include "base/small_file.h"

namespace {

struct Key {
  std::string_view name;
  std::int32_t TraceValues::*field;
};
constexpr std::array kKeys{
    Key{"baseseverity", &TraceValues::baseseverity},
    Key{"persistent", &TraceValues::persistent},
    Key{"tracemask", &TraceValues::tracemask},
    Key{"option", &TraceValues::option},
    Key{"data", &TraceValues::data},
};

// Maximum number of bytes of a bad line that the log shows. They are enough to find the line, and
// do not flood the log.
constexpr std::size_t kShownBytes = 64;

std::string_view trimmed(std::string_view text) {
  return base::trimmed(text, " \t\r");
}

template <typename Number>
std::optional<std::int32_t> wholeNumber(std::string_view digits, int base) {
  Number number{};
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number, base);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return static_cast<std::int32_t>(number);
}

std::optional<std::int32_t> number(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    return wholeNumber<std::uint32_t>(text.substr(2), 16);
  }
  return wholeNumber<std::int32_t>(text, 10);
}

bool takeLine(std::string_view line, TraceValues& values) {
  const auto equals = line.find('=');
  if (equals == std::string_view::npos) return false;
  const auto value = number(trimmed(line.substr(equals + 1)));
  if (!value) return false;
  for (const auto& key : kKeys) {
    if (key.name != trimmed(line.substr(0, equals))) continue;
    const bool isSeverity = key.field == &TraceValues::baseseverity;
    if (isSeverity && (*value < LOG_EMERG || *value > LOG_DEBUG)) return false;
    values.*key.field = *value;
    return true;
  }
  return false;
}

// The reason why there is no text; null if there was no failure.
const char* reasonOf(const base::FileFailure& failure) {
  static_assert(process::kTraceFileLimit == 4096);
  switch (failure.problem) {
    case base::FileProblem::none:
    case base::FileProblem::missing:
      return nullptr;
    case base::FileProblem::notRegular:
      return "not a regular file";
    case base::FileProblem::tooLong:
      return "larger than 4096 bytes";
    default:
      // ENOTDIR also means that there is no such file: the path of its folder is a file.
      return failure.error == ENOTDIR ? nullptr : std::strerror(failure.error);
  }
}

void nameBadLine(const std::string& path, int lineNumber, std::string_view line) {
  logLine(LOG_WARNING, "process: %s line %d is not understood: %.*s", path.c_str(), lineNumber,
          static_cast<int>(std::min(line.size(), kShownBytes)), line.data());
}

int setTraceValues(const char* name, TraceValues* record) {
  const bool isRecorded = record != nullptr;
  const bool named = base::isFileName(name);
  const std::string path = "/etc/" + std::string(name == nullptr ? "(null)" : name) + "/trace.conf";
  const auto file =
      named ? base::readFile(path.c_str(), base::inTrustedFolder(process::kTraceFileLimit))
            : base::FileText{};
  const char* const reason = named ? reasonOf(file.failure) : "not a daemon's name";
  if (reason != nullptr) {
    if (isRecorded) logLine(LOG_ERR, "process: cannot read %s: %s", path.c_str(), reason);
    return -1;
  }
  // Bad lines are logged before the mask is set, because the new mask might hide them.
  const auto values = process::parseTraceValues(file.text, [&](int lineNumber, auto line) {
    if (isRecorded) nameBadLine(path, lineNumber, line);
  });
  if (isRecorded) *record = values;
  setlogmask(LOG_UPTO(values.baseseverity));
  return 0;
}

}  // namespace

TraceValues process::parseTraceValues(std::string_view text, const BadTraceLine& bad) {
  TraceValues values;
  for (int lineNumber = 1; !text.empty(); ++lineNumber) {
    const auto end = std::min(text.find('\n'), text.size());
    const auto line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line.front() == '#') continue;
    if (!takeLine(line, values)) bad(lineNumber, line);
  }
  return values;
}

int settrcvalues(const char* name, TraceValues* record) {
  if (record != nullptr) *record = {};
  try {
    return setTraceValues(name, record);
  } catch (const std::exception& error) {
    // Memory is exhausted. The caller may be a signal handler, and no exception may leave a signal
    // handler.
    if (record != nullptr) {
      logLine(LOG_ERR, "process: cannot read /etc/%s/trace.conf: %s",
              name == nullptr ? "(null)" : name, error.what());
    }
    return -1;
  }
}
