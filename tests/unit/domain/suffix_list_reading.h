// The public-suffix list that was compiled in, read from its file by the plainest means, to hold
// the table and its lookups against.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The list's rules in its order, markers kept.
const std::vector<std::string>& listedRules();

bool isAscii(std::string_view text);

/// The code points of a UTF-8 text of the list, which has none beyond three bytes.
std::vector<std::uint32_t> codePointsOf(const std::string& utf8);

/// The hash, written out step by step.
std::uint32_t plainHash(const std::vector<std::uint32_t>& units);
std::uint32_t plainByteHash(const std::string& text);

/// Labels of a name, split at each dot.
std::vector<std::string> labelsOf(const std::string& name);

/// A name of random labels: rules of the list (plain, under wildcards, exceptions), made-up labels,
/// doubled, leading and trailing dots, capitals. `draw` counts through names, always the same.
std::string drawnName(unsigned draw);
