// Tests the reading of trace files: the values are in range, bad lines are logged and change
// nothing, and values that are written are read again.
#include <string>
#include <string_view>
#include <vector>

#include "platform/process/trace.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  for (std::size_t begin = 0; begin < text.size(); begin += lines.back().size() + 1)
    lines.push_back(text.substr(begin, text.substr(begin).find('\n')));
  return lines;
}

std::string written(const TraceValues& values) {
  return "baseseverity=" + std::to_string(values.baseseverity) +
         "\npersistent = " + std::to_string(values.persistent) +
         "\r\n tracemask=" + std::to_string(values.tracemask) +
         "\n#\n\noption=" + std::to_string(values.option) + "\ndata=" + std::to_string(values.data);
}

void refuse(int, std::string_view) {
  require(false, "a file that was written well is understood");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = fuzz::textOf(data, size);
  auto lines = linesOf(text);
  int last = 0;
  const auto values = process::parseTraceValues(text, [&](int number, std::string_view line) {
    require(number > last && static_cast<std::size_t>(number) <= lines.size(),
            "lines are numbered in their order");
    last = number;
    auto& known = lines[static_cast<std::size_t>(number - 1)];
    require(!line.empty() && line.front() != '#', "neither empty lines nor comments are bad");
    require(known.find(line) != known.npos, "the line is the one of that number");
    known = "#";
  });
  require(values.baseseverity >= 0 && values.baseseverity <= 7, "a severity is one of eight");

  std::string understood;
  for (const auto line : lines) understood += std::string(line) + '\n';
  require(process::parseTraceValues(understood, refuse) == values, "bad lines change nothing");
  require(process::parseTraceValues(written(values), refuse) == values,
          "values that are written out are read back");
  require(process::parseTraceValues(understood + written({}), refuse) == TraceValues(),
          "of two lines with one key the later counts");
  return 0;
}
