// The password of a command, which never comes from the command line: everybody can see that.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "base/wipe.h"

namespace client {

/// Longest password, and longest URL that is read, in bytes. HTTP servers refuse header fields of
/// 8 KiB, in which a password travels, with more around it.
inline constexpr std::size_t kMaxSecretBytes = 4096;

using base::WipedAtEnd;

/// A text that is wiped from memory before it is let go.
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

/// "Password for USER: "
std::string passwordPrompt(const std::string& user);

/// Asks for the password of `user` at the terminal, which does not show it.
/// Throws Failure: kUsage where there is no terminal, kBadData where it is empty, longer than
/// kMaxSecretBytes or no text.
Secret askPassword(const std::string& user);

/// The one line of the file `name`, or of standard input for "-", without its end; `what` is what
/// messages call it. A terminal that is standard input is asked with `prompt`, and does not show
/// the line. Throws Failure: kNoInput where it cannot be read, kBadData where it has no line at all
/// or further ones, more than kMaxSecretBytes, or bytes that are no UTF-8; of a terminal, as
/// askPassword().
Secret readLine(const std::string& name, const char* what, const std::string& prompt);

}  // namespace client
