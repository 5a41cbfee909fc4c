// Functions for small files in tests.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

inline void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A script that tests can recognise by `mark`.
inline std::string script(const std::string& mark = "DIRECT") {
  return "function FindProxyForURL(url, host) {\n  return \"" + mark + "\";\n}\n";
}
