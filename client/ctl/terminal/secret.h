// The password of a command. It is never on the command line, because every user can see command
// lines.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "base/wipe.h"

namespace client {

/// Longest password, and longest URL that readLine() reads, in bytes. A password is sent in an HTTP
/// header field, and servers refuse fields of 8 KiB.
inline constexpr std::size_t kMaxSecretBytes = 4096;

using base::WipedAtEnd;

/// A text that is wiped before its memory is freed.
class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string text) : mText(std::move(text)) {}
  Secret(Secret&& other) noexcept : mText(std::move(other.mText)) { base::wipe(other.mText); }
  Secret& operator=(Secret&& other) noexcept;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { base::wipe(mText); }

  const std::string& text() const { return mText; }

 private:
  std::string mText;
};

/// The text that asks for a password: "Password for USER: ".
std::string passwordPrompt(const std::string& user);

/// Asks for the password of `user` at the terminal, which does not show the input.
/// Throws Failure: kUsage if there is no terminal; kBadData if the password is empty, longer than
/// kMaxSecretBytes or not UTF-8.
Secret askPassword(const std::string& user);

/// Reads the only line of the file `name`, or of standard input for "-", without its line end.
/// `what` is the name of the text in messages. If standard input is a terminal, the function prints
/// `prompt`, and the terminal does not show the input. Throws Failure: kNoInput if the file cannot
/// be read; kBadData if the file has no line, several lines, more than kMaxSecretBytes, or bytes
/// that are not UTF-8. For a terminal, it throws the same as askPassword().
Secret readLine(const std::string& name, const char* what, const std::string& prompt);

}  // namespace client
