// Tests the writing of a lease. The network's server may send any options. Still, the lease file
// has three lines of harmless words, the resolver file has one line of names, and the daemon reads
// the same values that were written. The input is a byte for the encoding and four values; each
// value ends with "|".
#include <algorithm>
#include <optional>
#include <sstream>
#include <string>

#include "fetcher/resolver_file.h"
#include "platform/netservice/dhcp_conf.h"
#include "platform/netservice/lease_text.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace netservice;

namespace {

constexpr std::string_view kOuter = " \t\v\f\"'";

/// The text of a shell word that consists only of '...' and \'; nothing for any other word.
std::optional<std::string> wordOf(std::string_view text) {
  std::string word;
  while (!text.empty()) {
    if (text.starts_with("\\'")) {
      word += '\'';
      text.remove_prefix(2);
      continue;
    }
    const auto end = text.find('\'', 1);
    if (text.front() != '\'' || end == text.npos) return std::nullopt;
    word += text.substr(1, end - 1);
    text.remove_prefix(end + 1);
  }
  return word;
}

std::string valueOf(std::istringstream& lines, const std::string& key) {
  std::string line;
  require(!std::getline(lines, line).fail() && line.starts_with(key + "='"),
          "each key in its turn");
  const auto word = wordOf(std::string_view(line).substr(key.size() + 1));
  require(word.has_value(), "each value is one quoted word");
  require(std::none_of(word->begin(), word->end(),
                       [](unsigned char c) { return c < ' ' || c == 0x7F; }),
          "no control character");
  return *word;
}

bool isName(std::string_view name) {
  std::size_t label = 0;
  for (const char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '_';
    if (!plain && (c != '.' || label == 0)) return false;
    label = plain ? label + 1 : 0;
    if (label > 63) return false;
  }
  return label > 0 && name.size() <= 253;
}

std::string stripped(const std::string& text) {
  const auto first = text.find_first_not_of(kOuter);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(kOuter) - first + 1);
}

std::string octal(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto c = static_cast<unsigned char>(byte);
    text += '\\';
    for (const unsigned shift : {6U, 3U, 0U}) text += static_cast<char>('0' + (c >> shift & 7U));
  }
  return text;
}

std::string hex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789aBcDeF";
  std::string text;
  for (const char byte : bytes) {
    const auto c = static_cast<unsigned char>(byte);
    text += kDigits[c >> 4U];
    text += kDigits[c & 15U];
  }
  return text;
}

void checkLease(const std::string& text, std::string_view interface) {
  std::istringstream lines(text);
  valueOf(lines, "interface");
  const auto domain = valueOf(lines, "domain");
  const auto wpad = valueOf(lines, "wpad");
  std::string more;
  require(!std::getline(lines, more), "three lines and no more");
  require(text.ends_with('\n'), "the last line has its end");
  require(domain.empty() || isName(domain), "a domain is a name");
  require(wpad.size() <= kLongestOption, "a URL is as long as an option");
  require(wpadValue(text) == stripped(wpad), "the daemon reads the URL that was written");
  require(isLeaseOf(text, interface), "a lease is its own interface's");
}

void checkResolver(const std::string& text) {
  if (text.empty()) return;
  constexpr std::string_view kBegin = "search ";
  require(text.starts_with(kBegin) && text.find('\n') == text.size() - 1, "one line of names");
  const auto list = text.substr(kBegin.size(), text.size() - kBegin.size() - 1);
  require(list.size() <= kLongestSearchList, "no more names than promised");
  fuzz::Input names(reinterpret_cast<const std::uint8_t*>(list.data()), list.size());
  while (!names.empty()) require(isName(names.upTo(' ')), "each of them is one");
  require(fetcher::domainOfResolverText(text) == list, "the daemon reads what was written");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto encoding = static_cast<LeaseEncoding>(input.below(3));
  LeaseValues values;
  values.interface = input.upTo('|');
  values.wpad = input.upTo('|');
  values.domain = input.upTo('|');
  values.search = input.upTo('|');
  checkLease(leaseText(encoding, values), values.interface);
  checkResolver(resolverText(encoding, values));

  const auto plain = leaseText(LeaseEncoding::plain, values);
  const auto wpad = octal(values.wpad);
  const auto domain = octal(values.domain);
  const auto search = octal(values.search);
  const LeaseValues escaped{values.interface, wpad, domain, search};
  require(leaseText(LeaseEncoding::escaped, escaped) == plain, "escapes say what was escaped");
  require(
      resolverText(LeaseEncoding::escaped, escaped) == resolverText(LeaseEncoding::plain, values),
      "escapes say what was escaped, in lists of names too");
  const auto digits = hex(values.wpad);
  LeaseValues hexed = values;
  hexed.wpad = digits;
  require(leaseText(LeaseEncoding::hex, hexed) == plain, "digits say what they stand for");
  return 0;
}
