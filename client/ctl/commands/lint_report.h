// What `pac lint` found, and how it is printed. Functions of their arguments.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace client {

enum class Severity { kNote, kWarning, kError };

struct LintRule {
  std::string name;
  Severity severity = Severity::kWarning;  ///< usual one
  std::string summary;
  std::string reason;
};

struct LintFinding {
  std::size_t line = 0;    ///< from 1
  std::size_t column = 0;  ///< from 1, in UTF-16 units
  Severity severity = Severity::kWarning;
  std::string name;  ///< of the rule
  std::string message;
  std::string reason;
  std::string fix;  ///< may be empty
};

struct LintReport {
  std::vector<LintRule> rules;
  std::vector<LintFinding> findings;  ///< by line and column
};

/// "note", "warning" or "error".
const char* nameOf(Severity severity);

/// The report of the workbench's command "lint". Throws nlohmann::json::exception or
/// std::out_of_range for anything else.
LintReport lintReportOf(const nlohmann::json& report);

/// "FILE:LINE:COLUMN: SEVERITY: MESSAGE [NAME]", then reason and fix, for each finding, and a last
/// line with their number. One element for each line.
std::vector<std::string> lintLines(const LintReport& report, const std::string& file);

/// An object: file, errors, warnings, notes and findings.
nlohmann::ordered_json lintJson(const LintReport& report, const std::string& file);

/// The Static Analysis Results Interchange Format, 2.1.0.
/// @param version of this program
nlohmann::ordered_json lintSarif(const LintReport& report, const std::string& file,
                                 const std::string& version);

}  // namespace client
