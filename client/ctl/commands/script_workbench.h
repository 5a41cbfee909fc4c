// The workbench of PAC scripts as commands use it: a sandboxed process that parses a script, and
// what it reports.
//
// Each function throws Failure (kRefused) with a line that names the file if there is no report.
#pragma once

#include <cstddef>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "engine/pac_engine.h"

namespace client {

/// A process that parses `script`, the bytes of a PAC file, and never runs it: at most 10 s for
/// each command, 256 MiB of heap, 16 MiB of stack.
/// @param file the name of the script in messages
std::unique_ptr<pac_engine::Engine> openParser(std::string_view script, const std::string& file);

/// Has the parser do `command` (the file of this name in engine/worker/workbench/ states what it
/// takes and reports). A script that the parser does not take, though the engine does, is a
/// Failure, too.
nlohmann::json askParser(pac_engine::Engine& parser, std::string_view command,
                         const nlohmann::json& argument, const std::string& file);

/// One place of a script; see engine/worker/workbench/instrument.js.
struct Place {
  std::string kind;        ///< letters, one for each thing that the place is
  std::size_t line = 0;    ///< from 1
  std::size_t column = 0;  ///< from 1, in UTF-16 units
  std::size_t lastLine = 0;
  std::string source;  ///< in one line, cut; empty for statements
  std::size_t function = 0;
  int owner = -1;  ///< the place that decides whether this one is reached
  bool branch = false;

  bool is(char letter) const { return kind.find(letter) != std::string::npos; }
};

struct ScriptFunction {
  std::string name;  ///< empty for the script itself
  std::size_t line = 0;
  std::size_t lastLine = 0;
};

/// A remark of the parser: what it does not look into.
struct ScriptNote {
  std::size_t line = 0;
  std::string text;
};

/// A script that notes what it does.
struct InstrumentedScript {
  std::string text;  ///< for a worker that traces
  std::vector<Place> places;
  std::vector<ScriptFunction> functions;
  std::vector<ScriptNote> notes;
  std::string source;  ///< decoded, with "\n" as line ends
};

InstrumentedScript instrumented(std::string_view script, const std::string& file);

}  // namespace client
