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

/// A name and what it stands for.
struct Row {
  std::string_view name;
  std::string value;
};

/// Prints `title` and below it the rows, indented, their values one below the other.
void printBlock(std::string_view title, std::span<const Row> rows);

/// Prints `value`, indented, and a line end. Bytes that are no UTF-8 become U+FFFD, as JSON can
/// hold no others.
void printJson(const nlohmann::ordered_json& value);

/// Hands on what others have printed.
void finishOutput();

/// Says "proxymanagerctl: MESSAGE" on standard error.
void complain(std::string_view message);

}  // namespace client
