#include "platform/process/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "base/file_name.h"
#include "base/log_line.h"

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

// What of a bad line is shown: enough to find it, not enough to flood the log.
constexpr std::size_t kShownBytes = 64;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
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

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : mDescriptor(descriptor) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (mDescriptor >= 0) close(mDescriptor);
  }
  int get() const { return mDescriptor; }

 private:
  int mDescriptor;
};

// The file's text, or why there is none; no file is an empty text.
struct FileText {
  std::string text;
  const char* failure = nullptr;
};

FileText readTraceFile(const std::string& path) {
  // O_NONBLOCK: opening a fifo that stands there must not wait for a writer.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (file.get() < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return {};
    return {{}, std::strerror(errno)};
  }
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return {{}, std::strerror(errno)};
  if (!S_ISREG(status.st_mode)) return {{}, "not a regular file"};
  std::string text(process::kTraceFileLimit + 1, '\0');
  std::size_t length = 0;
  while (length < text.size()) {
    const ssize_t got = read(file.get(), text.data() + length, text.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return {{}, std::strerror(errno)};
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  static_assert(process::kTraceFileLimit == 4096);
  if (length > process::kTraceFileLimit) return {{}, "larger than 4096 bytes"};
  text.resize(length);
  return {std::move(text), nullptr};
}

void nameBadLine(const std::string& path, int lineNumber, std::string_view line) {
  logLine(LOG_WARNING, "process: %s line %d is not understood: %.*s", path.c_str(), lineNumber,
          static_cast<int>(std::min(line.size(), kShownBytes)), line.data());
}

int setTraceValues(const char* name, TraceValues* record) {
  const bool told = record != nullptr;
  const bool named = process::isFileName(name);
  const std::string path = "/etc/" + std::string(name == nullptr ? "(null)" : name) + "/trace.conf";
  const FileText file = named ? readTraceFile(path) : FileText{{}, "not a daemon's name"};
  if (file.failure != nullptr) {
    if (told) logLine(LOG_ERR, "process: cannot read %s: %s", path.c_str(), file.failure);
    return -1;
  }
  // Bad lines are said before the mask is set, which might hide them.
  const auto values = process::parseTraceValues(file.text, [&](int lineNumber, auto line) {
    if (told) nameBadLine(path, lineNumber, line);
  });
  if (told) *record = values;
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
    // No memory. Nothing may leave through a signal handler that called.
    if (record != nullptr) {
      logLine(LOG_ERR, "process: cannot read /etc/%s/trace.conf: %s",
              name == nullptr ? "(null)" : name, error.what());
    }
    return -1;
  }
}
