#include "client/ctl/terminal/secret.h"

#include <bsd/readpassphrase.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "base/unique_fd.h"
#include "base/visible.h"
#include "base/wipe.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"
#include "client/library/bus_text.h"

namespace client {

namespace {

/// A buffer for the longest line, the line end, and one byte past the limit. The destructor wipes
/// the buffer.
struct Room {
  std::array<char, kMaxSecretBytes + 3> bytes{};
  Room() = default;
  Room(const Room&) = delete;
  Room& operator=(const Room&) = delete;
  ~Room() { base::wipe(bytes.data(), bytes.size()); }
};

[[noreturn]] void refuse(const std::string& what, const std::string& why) {
  throw Failure(kBadData, what + ' ' + why);
}

void checkText(std::string_view text, const std::string& what) {
  if (text.size() > kMaxSecretBytes) {
    refuse(what, "is longer than " + std::to_string(kMaxSecretBytes) + " bytes");
  }
  if (!isBusText(text)) refuse(what, "is no text in UTF-8");
}

std::size_t readInto(Room& room, int fd, const std::string& name) {
  std::size_t size = 0;
  while (size < room.bytes.size()) {
    const ssize_t count = read(fd, room.bytes.data() + size, room.bytes.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      throw Failure(kNoInput, "cannot read " + shownName(name) + ": " +
                                  std::generic_category().message(errno));
    }
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  return size;
}

/// Asks for `what` at the terminal, which does not show the input. `missing` is the message if
/// there is no terminal.
Secret ask(const std::string& prompt, const std::string& what, const std::string& missing) {
  Room room;
  // readpassphrase() restores the terminal after every signal that ends the wait.
  if (readpassphrase(prompt.c_str(), room.bytes.data(), room.bytes.size() - 1, RPP_REQUIRE_TTY) ==
      nullptr) {
    throw Failure(kUsage, missing);
  }
  const std::string_view text(room.bytes.data());
  // Ctrl-D looks like an empty line, but the person did not enter one.
  if (text.empty()) refuse(what, "is empty; an empty one has to come from a file or a pipe");
  checkText(text, what);
  return Secret(std::string(text));
}

}  // namespace

std::string passwordPrompt(const std::string& user) {
  return "Password for " + base::visible(user) + ": ";
}

Secret& Secret::operator=(Secret&& other) noexcept {
  if (this != &other) {
    base::wipe(mText);
    mText = std::move(other.mText);
    base::wipe(other.mText);
  }
  return *this;
}

Secret askPassword(const std::string& user) {
  return ask(passwordPrompt(user), "the password",
             "there is no terminal to ask for the password; name a file that holds it with "
             "--password-file, or \"-\" for standard input");
}

Secret readLine(const std::string& name, const char* what, const std::string& prompt) {
  const bool isStandardInput = name == "-";
  if (isStandardInput && isatty(STDIN_FILENO) == 1) {
    return ask(prompt, what, std::string("there is no terminal to ask for ") + what);
  }
  base::UniqueFd file;
  if (!isStandardInput) {
    file.reset(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file) {
      throw Failure(kNoInput,
                    "cannot read " + name + ": " + std::generic_category().message(errno));
    }
  }
  Room room;
  const auto size = readInto(room, isStandardInput ? STDIN_FILENO : file.get(), name);
  std::string_view text(room.bytes.data(), size);
  const auto called = std::string(what) + " in " + shownName(name);
  // An empty input is more likely the output of a failed program than an empty password.
  if (text.empty()) refuse(called, "is empty, without even a line end");
  const auto end = text.find('\n');
  if (end != std::string_view::npos && end + 1 < text.size()) {
    refuse(called, "has more than one line");
  }
  text = text.substr(0, end);
  if (end != std::string_view::npos && text.ends_with('\r')) text.remove_suffix(1);
  checkText(text, called);
  return Secret(std::string(text));
}

}  // namespace client
