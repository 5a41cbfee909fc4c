// Functions for the workbench, a sandboxed process that parses a PAC script and sends reports.
//
// If there is no report, each function throws Failure (kRefused) with a line that names the file.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "client/ctl/commands/workbench_report.h"
#include "engine/pac_engine.h"

namespace client {

/// Starts a process that parses `script`, the bytes of a PAC file, and never runs it. Its limits
/// are 10 s for each command, 256 MiB of heap and 16 MiB of stack.
/// @param file the name of the script in messages
std::unique_ptr<pac_engine::Engine> openParser(std::string_view script, const std::string& file);

/// Runs `command` in the parser. Each command has a file in engine/worker/workbench/, which
/// describes its argument and its report. The function also throws Failure if the parser rejects a
/// script that the engine accepts.
nlohmann::json askParser(pac_engine::Engine& parser, std::string_view command,
                         const nlohmann::json& argument, const std::string& file);

InstrumentedScript instrumented(std::string_view script, const std::string& file);

}  // namespace client
