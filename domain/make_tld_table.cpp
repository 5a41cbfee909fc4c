// make_tld_table LIST HEADER: turns a public-suffix list into the constant table that is compiled
// into the daemon. It runs during the build of the tree. It needs only the standard library and
// domain/tld_hash.h, so that a cross build can compile it for the build machine.
//
// There are as many buckets as rules. A rule with bytes above 127 goes into the bucket of its code
// points. Lookups hash bytes and so search another bucket: these rules are never found. This is
// intended: here, a name in that form is never a public suffix. If the code points and the bytes of
// a rule give the same bucket, the rule moves to the next bucket.
//
// List format: https://github.com/publicsuffix/list/wiki/Format
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <limits>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "base/ascii.h"
#include "base/utf8.h"
#include "domain/tld_hash.h"

namespace {

/// @return the code points of `text`, or nothing if `text` is not UTF-8
std::optional<std::vector<std::uint32_t>> codePoints(std::string_view text) {
  std::vector<std::uint32_t> result;
  for (std::size_t at = 0; at < text.size();) {
    const base::Utf8Character character = base::utf8CharacterAt(text, at);
    if (character.length == 0) return std::nullopt;
    result.push_back(character.code);
    at += character.length;
  }
  return result;
}

/// The rules in the list's order. A line is read up to its first blank; empty lines and comments
/// are dropped.
std::vector<std::string> readRules(std::istream& list) {
  std::vector<std::string> rules;
  for (std::string line; std::getline(list, line);) {
    const std::string rule = line.substr(0, line.find_first_of(" \t\r"));
    if (!rule.empty() && rule.compare(0, 2, "//") != 0) rules.push_back(rule);
  }
  return rules;
}

/// @return the bucket of `rule` among `buckets`, or nothing if `rule` is not UTF-8
std::optional<std::uint32_t> bucketOf(const std::string& rule, std::uint32_t buckets) {
  const auto points = codePoints(rule);
  if (!points) return std::nullopt;
  std::uint32_t hash = 0;
  bool ascii = true;
  for (const std::uint32_t point : *points) {
    ascii = ascii && point < 0x80;
    const auto folded = static_cast<unsigned char>(base::lowerCase(static_cast<char>(point)));
    hash = domain::tldHashStep(hash, point < 0x80 ? folded : point);
  }
  const std::uint32_t bucket = hash % buckets;
  const bool reachable = bucket == domain::tldHashOf(rule) % buckets;
  return !ascii && reachable ? (bucket + 1) % buckets : bucket;
}

/// A string literal with `rule` and, if `terminated`, a terminator. It uses octal escapes of three
/// digits, because no separator is needed after them.
std::string literal(const std::string& rule, bool terminated) {
  std::string text = "    \"";
  for (const char c : rule) {
    if (c >= ' ' && c <= '~' && c != '"' && c != '\\' && c != '?') {
      text += c;
    } else {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\%03o",
                    static_cast<unsigned>(static_cast<unsigned char>(c)));
      text += escape;
    }
  }
  return text + (terminated ? "\\0\"\n" : "\"\n");
}

std::string table(const std::vector<std::vector<std::string>>& buckets, std::size_t rules) {
  std::ostringstream starts;
  std::string area;
  std::size_t offset = 0;
  std::size_t written = 0;
  for (std::size_t i = 0; i < buckets.size(); ++i) {
    starts << (i % 16 == 0 ? "\n    " : " ") << offset << ",";
    for (const auto& rule : buckets[i]) {
      // After the last rule, the terminator of the string literal itself is enough.
      area += literal(rule, ++written < rules);
      offset += rule.size() + 1;
    }
  }
  const bool small = offset <= std::numeric_limits<std::uint16_t>::max();
  std::ostringstream out;
  out << "// Made by make_tld_table from the public-suffix list; not to be edited.\n"
         "#pragma once\n\n#include <cstdint>\n\n"
         "// The rules are one literal, which a long list makes longer than compilers promise.\n"
         "#pragma GCC diagnostic push\n"
         "#pragma GCC diagnostic ignored \"-Woverlength-strings\"\n\n"
         "namespace domain {\n\n"
         "/// Rules in the table, and buckets as well.\n"
      << "inline constexpr std::uint32_t kTldBuckets = " << buckets.size() << ";\n\n"
      << "/// Where each bucket begins in kTldRules; the next entry is where it ends.\n"
      << "inline constexpr std::uint" << (small ? 16 : 32)
      << "_t kTldBucketStart[kTldBuckets + 1] = {" << starts.str() << "\n    " << offset << "};\n\n"
      << "/// The rules, each NUL-terminated, bucket after bucket.\n"
      << "inline constexpr char kTldRules[" << offset << "] =\n"
      << area << "    ;\n\n}  // namespace domain\n\n#pragma GCC diagnostic pop\n";
  return out.str();
}

/// @return the header's text; empty, with a line on stderr, if the input is not a public-suffix
/// list
std::string tableOf(const char* listName) {
  std::ifstream list(listName);
  const auto rules = readRules(list);
  if (rules.empty()) {
    std::cerr << "make_tld_table: " << listName << ": it has no rules\n";
    return "";
  }
  std::vector<std::vector<std::string>> buckets(rules.size());
  std::set<std::string_view> seen;
  for (const auto& rule : rules) {
    const auto bucket = bucketOf(rule, static_cast<std::uint32_t>(buckets.size()));
    if (!bucket || !seen.insert(rule).second) {
      std::cerr << "make_tld_table: " << listName << ": rule "
                << (bucket ? "twice: " : "not UTF-8: ") << rule << "\n";
      return "";
    }
    buckets[*bucket].push_back(rule);
  }
  return table(buckets, rules.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: make_tld_table LIST HEADER\n";
    return 2;
  }
  const std::string header = tableOf(argv[1]);
  if (header.empty()) return 1;
  std::ofstream out(argv[2], std::ios::binary | std::ios::trunc);
  out << header << std::flush;
  if (out) return 0;
  std::cerr << "make_tld_table: " << argv[2] << ": cannot be written\n";
  return 1;
}
