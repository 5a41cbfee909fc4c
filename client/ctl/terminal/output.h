// What the commands print: results on standard output, for people or as JSON, and complaints on
// standard error. No text from outside reaches a terminal with its control characters. What is
// printed is handed on at once, so that no alert of a script overtakes it; where that fails, each
// function throws Failure (kOutput).
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

namespace client {

/// How a value looks on a terminal that shows colours.
enum class Tone { kPlain, kGood, kBad, kFaint };

/// A name and what it stands for.
struct Row {
  std::string_view name;
  std::string value;
  Tone tone = Tone::kPlain;
};

/// Whether standard output is a terminal that may be coloured: not where NO_COLOR is set to
/// anything, nor on a dumb one.
bool isColoured();

/// Prints `title` and below it the rows, indented, their values one below the other.
void printBlock(std::string_view title, std::span<const Row> rows);

/// Prints `name`, in a column of `width`, behind `time`, and then `value`.
void printEvent(std::string_view time, const Row& event, int width);

/// Prints `line` for a program to read, with the control characters made visible, and a line end.
void printLine(std::string_view line);

/// Prints lines that hold nothing from outside but what has been judged.
void printText(std::string_view lines);

/// Prints `value`, indented, and a line end, with escapes for all that is not printable ASCII.
/// Bytes that are no UTF-8 become U+FFFD, as JSON can hold no others.
void printJson(const nlohmann::ordered_json& value);

/// Prints `value` in one line.
void printJsonLine(const nlohmann::ordered_json& value);

/// Hands on what others have printed.
void finishOutput();

/// Says "proxymanagerctl: MESSAGE" on standard error.
void complain(std::string_view message);

}  // namespace client
