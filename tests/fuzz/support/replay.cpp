// usage: TARGET FOLDER|FILE...
//
// Replaces libFuzzer in builds in which a target is an ordinary test. It tries the empty input,
// each given file, and all files of each given folder, in the order of their names. It fails if
// there is no file at all.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/fuzz/support/target.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesOf(int count, char** names) {
  std::vector<fs::path> files;
  for (int i = 1; i < count; ++i) {
    if (!fs::is_directory(names[i])) {
      files.emplace_back(names[i]);
      continue;
    }
    for (const auto& entry : fs::directory_iterator(names[i])) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void replay(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw fs::filesystem_error("cannot read", file, std::error_code());
  const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
  // The copy has exactly the size of the input, so that the address sanitizer reports a read after
  // its end.
  const auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  std::fprintf(stderr, "%s\n", file.c_str());
  LLVMFuzzerTestOneInput(copy.get(), bytes.size());
}

}  // namespace

int main(int count, char** names) try {
  LLVMFuzzerTestOneInput(std::make_unique<std::uint8_t[]>(0).get(), 0);
  const auto files = filesOf(count, names);
  for (const auto& file : files) replay(file);
  std::fprintf(stderr, "%zu inputs\n", files.size());
  return files.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return EXIT_FAILURE;
}
