#include "platform/netservice/dhcp_conf.h"

#include "base/ascii.h"

namespace netservice {
namespace {

constexpr std::string_view kBlanks = " \t\v\f";
constexpr std::string_view kBlanksAndQuotes = " \t\v\f\"'";
constexpr std::string_view kEnds{"\0\r", 2};

// Removes quotes and backslashes as a POSIX shell does, with one difference: an unquoted blank does
// not end the value, because some writers do not quote for shells.
// https://pubs.opengroup.org/onlinepubs/9699919799/utilities/V3_chap02.html#tag_18_02
std::string unquoted(std::string_view word) {
  std::string plain;
  char quote = '\0';
  for (std::size_t i = 0; i < word.size(); ++i) {
    const char c = word[i];
    if (quote == '\0' && (c == '\'' || c == '"')) {
      quote = c;
    } else if (quote != '\0' && c == quote) {
      quote = '\0';
    } else if (c == '\\' && quote != '\'' && i + 1 < word.size() &&
               (quote == '\0' || std::string_view("$`\"\\").find(word[i + 1]) != word.npos)) {
      plain += word[++i];
    } else {
      plain += c;
    }
  }
  return plain;
}

// The line contains no LF, and unquoting never makes a control byte, so one cut is enough.
std::string cleaned(std::string_view value) {
  const std::string plain =
      unquoted(base::trimmed(value.substr(0, value.find_first_of(kEnds)), kBlanks));
  return std::string(base::trimmed(plain, kBlanksAndQuotes));
}

}  // namespace

std::string wpadValue(std::string_view text) {
  std::string value;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const auto equals = line.find('=');
    if (equals == std::string_view::npos) continue;
    if (base::trimmed(line.substr(0, equals), kBlanks) == "wpad")
      value = cleaned(line.substr(equals + 1));
  }
  return value;
}

}  // namespace netservice
