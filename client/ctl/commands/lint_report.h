// The findings of `pac lint`, and their output formats. Pure functions.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace client {

enum class Severity { kNote, kWarning, kError };

struct LintRule {
  std::string name;
  Severity severity = Severity::kWarning;  ///< the usual severity
  std::string summary;
  std::string reason;
};

struct LintFinding {
  std::size_t line = 0;    ///< from 1
  std::size_t column = 0;  ///< from 1, in UTF-16 units
  Severity severity = Severity::kWarning;
  std::string name;  ///< the rule's name
  std::string message;
  std::string reason;
  std::string fix;  ///< may be empty
};

struct LintReport {
  std::vector<LintRule> rules;
  std::vector<LintFinding> findings;  ///< by line and column
};

/// The name of `severity` in the output: "note", "warning" or "error".
const char* nameOf(Severity severity);

/// Reads the report of the workbench's command "lint". Throws nlohmann::json::exception or
/// std::out_of_range if `report` has another form.
LintReport lintReportOf(const nlohmann::json& report);

/// Returns the lines of the output for people. A finding begins with "FILE:LINE:COLUMN: SEVERITY:
/// MESSAGE [NAME]"; its reason and its fix follow. The last line has the number of findings.
std::vector<std::string> lintLines(const LintReport& report, const std::string& file);

/// The report as a JSON object with file, errors, warnings, notes and findings.
nlohmann::ordered_json lintJson(const LintReport& report, const std::string& file);

/// The report in the Static Analysis Results Interchange Format, version 2.1.0.
/// @param version the version of this program
nlohmann::ordered_json lintSarif(const LintReport& report, const std::string& file,
                                 const std::string& version);

}  // namespace client
