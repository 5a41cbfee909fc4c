#include "tests/unit/domain/suffix_list_reading.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>

const std::vector<std::string>& listedRules() {
  static const auto rules = [] {
    std::vector<std::string> result;
    std::ifstream file(SUFFIX_LIST);
    for (std::string line; std::getline(file, line);)
      if (!line.empty() && line.rfind("//", 0) != 0) result.push_back(line);
    return result;
  }();
  return rules;
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 128; });
}

std::vector<std::uint32_t> codePointsOf(const std::string& utf8) {
  std::vector<std::uint32_t> points;
  for (const char c : utf8) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0xE0)
      points.push_back(byte & 0x0Fu);
    else if (byte >= 0xC0)
      points.push_back(byte & 0x1Fu);
    else if (byte >= 0x80)
      points.back() = points.back() * 64 + (byte & 0x3Fu);
    else
      points.push_back(byte);
  }
  return points;
}

std::uint32_t plainHash(const std::vector<std::uint32_t>& units) {
  std::uint32_t h = 0;
  for (const std::uint32_t unit : units) {
    h = (h << 4) + unit;
    const std::uint32_t g = h & 0xF0000000u;
    h = h ^ (g >> 23);
    h = h & 0x0FFFFFFFu;
  }
  return h;
}

std::uint32_t plainByteHash(const std::string& text) {
  std::vector<std::uint32_t> bytes;
  for (const char c : text) bytes.push_back(static_cast<unsigned char>(c));
  return plainHash(bytes);
}

std::vector<std::string> labelsOf(const std::string& name) {
  std::vector<std::string> labels(1);
  for (const char c : name) {
    if (c == '.')
      labels.emplace_back();
    else
      labels.back() += c;
  }
  return labels;
}

std::string drawnName(unsigned draw) {
  std::mt19937 random(draw);
  const auto below = [&](std::size_t limit) { return random() % limit; };
  const auto& rules = listedRules();
  std::string name = rules[below(rules.size())];
  if (below(8) != 0) name.erase(0, name.find_first_not_of("*.!"));
  if (below(12) == 0) name = std::string("lan");
  static const char* const made[] = {"a", "host", "example", "xn--p1ai", "", "co", "city", "uk"};
  for (auto more = below(4); more > 0; --more)
    name = std::string(made[below(std::size(made))]).append(".").append(name);
  if (below(10) == 0) name.append(below(3) + 1, '.');
  if (below(10) == 0) name.insert(name.begin(), '.');
  if (below(5) == 0) {
    for (char& c : name)
      if (c >= 'a' && c <= 'z' && below(2) == 0) c = static_cast<char>(c - 'a' + 'A');
  }
  return name;
}
