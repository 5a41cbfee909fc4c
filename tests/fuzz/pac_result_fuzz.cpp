// Tests the parsing of a script's result text. The entries equal those of a second parser. If the
// entries are joined and parsed again, the result is the same.
#include <string>
#include <string_view>
#include <vector>

#include "pac/pac_parser.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

struct Entry {
  std::int32_t type;
  std::string text;
  bool operator==(const Entry&) const = default;
};

std::vector<Entry> parsed(const std::string& result) {
  auto settings = PacParser::proxys2ProxySettings(result);
  std::vector<Entry> entries;
  for (const auto& setting : settings) {
    require(setting.url != nullptr, "each entry has a text");
    entries.push_back({setting.type, setting.url});
  }
  PacParser::clearProxySettings(settings);
  require(settings.empty(), "a list that was freed is empty");
  return entries;
}

// A piece between semicolons, without the blanks before it. Texts end at a NUL, as C strings do.
std::vector<Entry> expected(std::string_view result) {
  std::vector<Entry> entries;
  for (fuzz::Input input(reinterpret_cast<const std::uint8_t*>(result.data()), result.size());
       !input.empty();) {
    std::string piece(input.upTo(';'));
    while (piece.starts_with(' ') || piece.starts_with('\t')) piece.erase(0, 1);
    const std::string text(piece.c_str());
    if (piece == "DIRECT") entries.push_back({1, text});
    if (piece.starts_with("PROXY ")) entries.push_back({2, text});
    if (piece.starts_with("SOCKS ")) entries.push_back({3, text});
  }
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string result(fuzz::textOf(data, size));
  const auto entries = parsed(result);
  require(entries == expected(result), "the entries are those of the text, in its order");
  std::string joined;
  for (const auto& entry : entries) joined += entry.text + ';';
  require(parsed(joined) == entries, "entries put together again are the same");
  return 0;
}
