#include "platform/netservice/lease_text.h"

#include <algorithm>
#include <vector>

#include "base/ascii.h"
#include "base/shell_word.h"

namespace netservice {
namespace {

// The limit of RFC 1035, 2.3.4, in characters and without the final dot.
constexpr std::size_t kLongestName = 253;
constexpr std::size_t kLongestLabel = 63;
constexpr std::string_view kLineEnds{"\0\r\n", 3};

bool isOctal(char c) {
  return c >= '0' && c <= '7';
}

std::string unescaped(std::string_view text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view next = text.substr(i + 1, 3);
    if (text[i] != '\\' || next.empty()) {
      bytes += text[i];
    } else if (next.size() == 3 && std::all_of(next.begin(), next.end(), isOctal)) {
      bytes += static_cast<char>((next[0] - '0') * 64 + (next[1] - '0') * 8 + (next[2] - '0'));
      i += 3;
    } else {
      bytes += text[++i];
    }
  }
  return bytes;
}

// If a text is not hexadecimal, the result is empty.
std::string unhexed(std::string_view text) {
  if (text.size() % 2 != 0) return {};
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = base::hexValue(text[i]);
    const int low = base::hexValue(text[i + 1]);
    if (high < 0 || low < 0) return {};
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

std::string decoded(LeaseEncoding encoding, std::string_view text) {
  return encoding == LeaseEncoding::escaped ? unescaped(text) : std::string(text);
}

std::string firstLine(std::string text) {
  text.resize(std::min(text.find_first_of(kLineEnds), text.size()));
  std::erase_if(text, base::isControl);
  text.resize(std::min(text.size(), kLongestOption));
  return text;
}

bool isNameCharacter(char c) {
  return base::isLetter(c) || base::isDigit(c) || c == '-' || c == '_';
}

bool isName(std::string_view text) {
  if (text.empty() || text.size() > kLongestName) return false;
  std::size_t label = 0;
  for (const char c : text) {
    if (c == '.' ? label == 0 : !isNameCharacter(c)) return false;
    label = c == '.' ? 0 : label + 1;
    if (label > kLongestLabel) return false;
  }
  return label > 0;
}

// Some servers put a dot at the end of a name, and a line end at the end of a text.
std::vector<std::string> names(const std::string& text) {
  const std::string line = text.substr(0, text.find_first_of(kLineEnds));
  std::vector<std::string> found;
  for (std::size_t begin = 0; begin < line.size();) {
    const std::size_t end = std::min(line.find_first_of(base::kBlanks, begin), line.size());
    std::string name = line.substr(begin, end - begin);
    begin = end + 1;
    if (name.ends_with('.')) name.pop_back();
    if (isName(name)) found.push_back(std::move(name));
  }
  return found;
}

std::string interfaceLine(std::string_view interface) {
  return "interface=" + base::shellWord(firstLine(std::string(interface))) + '\n';
}

}  // namespace

std::string leaseText(LeaseEncoding encoding, const LeaseValues& values) {
  const std::vector<std::string> domain = names(decoded(encoding, values.domain));
  const std::string wpad = firstLine(
      encoding == LeaseEncoding::hex ? unhexed(values.wpad) : decoded(encoding, values.wpad));
  return interfaceLine(values.interface) +
         "domain=" + base::shellWord(domain.empty() ? std::string() : domain.front()) + '\n' +
         "wpad=" + base::shellWord(wpad) + '\n';
}

std::string resolverText(LeaseEncoding encoding, const LeaseValues& values) {
  std::vector<std::string> list = names(decoded(encoding, values.search));
  if (list.empty()) list = names(decoded(encoding, values.domain));
  std::string joined;
  for (const std::string& name : list) {
    if (joined.size() + 1 + name.size() > kLongestSearchList) break;
    if (!joined.empty()) joined += ' ';
    joined += name;
  }
  return joined.empty() ? std::string() : "search " + joined + '\n';
}

LeaseTexts leaseTexts(LeaseEncoding encoding, const LeaseValues& values) {
  return {leaseText(encoding, values), resolverText(encoding, values)};
}

LeaseTexts leaseTextsOf(std::string_view joined) {
  // No line of a lease begins like this, because each line of a lease is key=value.
  constexpr std::string_view kBegin = "\nsearch ";
  const std::size_t found = joined.find(kBegin);
  const std::size_t split = found == std::string_view::npos ? joined.size() : found + 1;
  return {std::string(joined.substr(0, split)), std::string(joined.substr(split))};
}

bool isLeaseOf(std::string_view text, std::string_view interface) {
  return text.starts_with(interfaceLine(interface));
}

}  // namespace netservice
