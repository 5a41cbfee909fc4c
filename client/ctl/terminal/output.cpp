#include "client/ctl/terminal/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <system_error>

#include "base/visible.h"
#include "client/ctl/failure.h"

namespace client {

namespace {

constexpr int kIndent = 2;  // columns, of blocks and of JSON
// JSON does not escape DEL and U+0080 to U+009F, but they control a terminal. So they are escaped
// here.
constexpr bool kAsciiOnly = true;
constexpr const char* kBold = "\x1b[1m";
constexpr const char* kNormal = "\x1b[0m";

const char* codeOf(Tone tone) {
  switch (tone) {
    case Tone::kGood:
      return "\x1b[32m";
    case Tone::kBad:
      return "\x1b[31m";
    case Tone::kFaint:
      return "\x1b[2m";
    case Tone::kPlain:
      break;
  }
  return "";
}

/// `text` between the escape sequence `code` and the reset sequence, if there are colours.
std::string coloured(const char* code, std::string_view text) {
  auto shown = base::visible(text);
  if (*code == '\0' || !isColoured()) return shown;
  return code + shown + kNormal;
}

}  // namespace

bool isColoured() {
  static const bool kColoured = [] {
    const char* const unwanted = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (unwanted == nullptr || *unwanted == '\0') &&
           terminal != nullptr && std::string_view(terminal) != "dumb";
  }();
  return kColoured;
}

void printBlock(std::string_view title, std::span<const Row> rows) {
  std::size_t width = 0;
  for (const auto& row : rows) width = std::max(width, row.name.size());
  std::cout << coloured(kBold, title) << '\n';
  for (const auto& row : rows) {
    std::cout << std::string(kIndent, ' ') << std::left << std::setw(static_cast<int>(width))
              << row.name << "  " << coloured(codeOf(row.tone), row.value) << '\n';
  }
  finishOutput();
}

void printEvent(std::string_view time, const Row& event, int width) {
  std::cout << coloured(codeOf(Tone::kFaint), time) << "  " << std::left
            << std::setw(event.value.empty() ? 0 : width) << event.name;
  if (!event.value.empty()) std::cout << "  " << coloured(codeOf(event.tone), event.value);
  std::cout << '\n';
  finishOutput();
}

void printLine(std::string_view line) {
  std::cout << base::visible(line) << '\n';
  finishOutput();
}

void printText(std::string_view lines) {
  std::cout << lines;
  finishOutput();
}

void printJson(const nlohmann::ordered_json& value) {
  using Json = nlohmann::ordered_json;
  std::cout << value.dump(kIndent, ' ', kAsciiOnly, Json::error_handler_t::replace) << '\n';
  finishOutput();
}

void printJsonLine(const nlohmann::ordered_json& value) {
  using Json = nlohmann::ordered_json;
  std::cout << value.dump(-1, ' ', kAsciiOnly, Json::error_handler_t::replace) << '\n';
  finishOutput();
}

void finishOutput() {
  // If a long output has already failed, errno has the reason.
  if (std::cout) errno = 0;
  if (std::cout.flush()) return;
  const int error = errno != 0 ? errno : EIO;
  throw Failure(kOutput, "cannot write the output: " + std::generic_category().message(error));
}

void keepStandardDescriptors() {
  struct stat state {};
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fstat(fd, &state) == 0) continue;
    // open() returns the lowest free number, which is `fd`.
    const int mode = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (open("/dev/null", mode | O_CLOEXEC) != fd) return;
  }
}

void complain(std::string_view message) {
  std::cerr << "proxymanagerctl: " << base::visible(message) << '\n';
}

}  // namespace client
