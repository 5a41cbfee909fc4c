// Reads the file of the built-in public-suffix list in a simple way, so that the tests can compare
// the table and its lookups with it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The list's rules in the order of the list, with their markers.
const std::vector<std::string>& listedRules();

bool isAscii(std::string_view text);

/// The code points of a UTF-8 text of the list. No character of the list has more than three bytes.
std::vector<std::uint32_t> codePointsOf(const std::string& utf8);

/// The hash of the table, calculated step by step.
std::uint32_t plainHash(const std::vector<std::uint32_t>& units);
std::uint32_t plainByteHash(const std::string& text);

/// Labels of a name, split at each dot.
std::vector<std::string> labelsOf(const std::string& name);

/// A name of random labels. Names contain rules of the list (plain rules, names below wildcards,
/// exceptions), invented labels, capital letters, and leading, double and trailing dots. The same
/// number `draw` always gives the same name.
std::string drawnName(unsigned draw);
