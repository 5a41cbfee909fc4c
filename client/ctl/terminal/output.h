// The output of the commands: results on standard output, for people or as JSON, and error messages
// on standard error. Control characters in texts from outside never reach a terminal. Each function
// flushes its output at once, so that no alert of a script appears before earlier output. If the
// output fails, each function throws Failure (kOutput).
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

namespace client {

/// How a value looks on a terminal that shows colours.
enum class Tone { kPlain, kGood, kBad, kFaint };

/// A name and its value.
struct Row {
  std::string_view name;
  std::string value;
  Tone tone = Tone::kPlain;
};

/// Whether the output may have colours: standard output is a terminal, TERM is not "dumb" and
/// NO_COLOR is not set.
bool isColoured();

/// Prints `title`, and below it the rows. The rows are indented, and their values begin in the same
/// column.
void printBlock(std::string_view title, std::span<const Row> rows);

/// Prints `time`, then `name` in a column of `width`, and then `value`.
void printEvent(std::string_view time, const Row& event, int width);

/// Prints `line` and a line end, for another program. Control characters are made visible.
void printLine(std::string_view line);

/// Prints lines unchanged. If they contain texts from outside, the caller must have checked these
/// texts.
void printText(std::string_view lines);

/// Prints `value`, indented, and a line end. It escapes everything except printable ASCII. Bytes
/// that are not UTF-8 become U+FFFD, because JSON cannot contain them.
void printJson(const nlohmann::ordered_json& value);

/// Prints `value` in one line.
void printJsonLine(const nlohmann::ordered_json& value);

/// Flushes standard output after other code has printed.
void finishOutput();

/// Opens a file for each standard descriptor that is closed, so that no other file gets its number.
/// Reading from standard input, and writing to the other two, still fails with EBADF.
void keepStandardDescriptors();

/// Prints "proxymanagerctl: MESSAGE" on standard error.
void complain(std::string_view message);

}  // namespace client
