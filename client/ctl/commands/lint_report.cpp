#include "client/ctl/commands/lint_report.h"

#include <algorithm>
#include <stdexcept>

#include "base/ascii.h"
#include "client/ctl/commands/workbench_report.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

Severity severityOf(const nlohmann::json& value) {
  const auto name = value.get<std::string>();
  for (const auto severity : {Severity::kNote, Severity::kWarning, Severity::kError}) {
    if (name == nameOf(severity)) return severity;
  }
  throw std::out_of_range("severity");
}

LintFinding findingOf(const nlohmann::json& row) {
  LintFinding finding;
  finding.line = wholeNumber(row.at(0));
  finding.column = wholeNumber(row.at(1));
  finding.severity = severityOf(row.at(2));
  finding.name = row.at(3).get<std::string>();
  finding.message = row.at(4).get<std::string>();
  finding.reason = row.at(5).get<std::string>();
  if (!row.at(6).is_null()) finding.fix = row.at(6).get<std::string>();
  return finding;
}

std::size_t countOf(const LintReport& report, Severity severity) {
  return static_cast<std::size_t>(
      std::count_if(report.findings.begin(), report.findings.end(),
                    [&](const auto& finding) { return finding.severity == severity; }));
}

std::string counted(std::size_t count, const char* what) {
  return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

/// A file name as a URI: relative to the working folder, or absolute.
std::string uriOf(const std::string& file) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string uri = file.front() == '/' ? "file://" : "";
  for (const char c : file) {
    const auto byte = static_cast<unsigned char>(c);
    const char lower = base::lowerCase(c);
    if ((lower >= 'a' && lower <= 'z') || base::isDigit(c) ||
        std::string_view("-._~/").find(c) != std::string_view::npos) {
      uri += c;
    } else {
      uri += {'%', kDigits[byte >> 4U], kDigits[byte & 15U]};
    }
  }
  return uri;
}

Json text(const std::string& content) {
  return Json{{"text", content}};
}

Json sarifRule(const LintRule& rule) {
  return Json{{"id", rule.name},
              {"shortDescription", text(rule.summary)},
              {"fullDescription", text(rule.reason)},
              {"defaultConfiguration", Json{{"level", nameOf(rule.severity)}}}};
}

Json sarifResult(const LintReport& report, const LintFinding& finding, const std::string& uri) {
  auto message = finding.message + ". " + finding.reason;
  if (!finding.fix.empty()) message += " Fix: " + finding.fix + '.';
  const Json region{{"startLine", finding.line}, {"startColumn", finding.column}};
  const Json place{{"artifactLocation", Json{{"uri", uri}}}, {"region", region}};
  Json result;
  result["ruleId"] = finding.name;
  const auto rule = std::find_if(report.rules.begin(), report.rules.end(),
                                 [&](const auto& one) { return one.name == finding.name; });
  if (rule != report.rules.end()) result["ruleIndex"] = rule - report.rules.begin();
  result["level"] = nameOf(finding.severity);
  result["message"] = text(message);
  result["locations"] = Json::array({Json{{"physicalLocation", place}}});
  return result;
}

}  // namespace

const char* nameOf(Severity severity) {
  switch (severity) {
    case Severity::kNote:
      return "note";
    case Severity::kWarning:
      return "warning";
    case Severity::kError:
      break;
  }
  return "error";
}

LintReport lintReportOf(const nlohmann::json& report) {
  LintReport lint;
  for (const auto& row : report.at("rules")) {
    lint.rules.push_back({row.at(0).get<std::string>(), severityOf(row.at(1)),
                          row.at(2).get<std::string>(), row.at(3).get<std::string>()});
  }
  for (const auto& row : report.at("findings")) lint.findings.push_back(findingOf(row));
  return lint;
}

std::vector<std::string> lintLines(const LintReport& report, const std::string& file) {
  std::vector<std::string> lines;
  for (const auto& finding : report.findings) {
    lines.push_back(file + ':' + std::to_string(finding.line) + ':' +
                    std::to_string(finding.column) + ": " + nameOf(finding.severity) + ": " +
                    finding.message + " [" + finding.name + ']');
    lines.push_back("    " + finding.reason);
    if (!finding.fix.empty()) lines.push_back("    fix: " + finding.fix);
  }
  lines.push_back(counted(countOf(report, Severity::kError), "error") + ", " +
                  counted(countOf(report, Severity::kWarning), "warning") + ", " +
                  counted(countOf(report, Severity::kNote), "note"));
  return lines;
}

Json lintJson(const LintReport& report, const std::string& file) {
  Json findings = Json::array();
  for (const auto& finding : report.findings) {
    findings.push_back(Json{{"line", finding.line},
                            {"column", finding.column},
                            {"severity", nameOf(finding.severity)},
                            {"name", finding.name},
                            {"message", finding.message},
                            {"reason", finding.reason},
                            {"fix", finding.fix.empty() ? Json() : Json(finding.fix)}});
  }
  Json object;
  object["file"] = file;
  object["errors"] = countOf(report, Severity::kError);
  object["warnings"] = countOf(report, Severity::kWarning);
  object["notes"] = countOf(report, Severity::kNote);
  object["findings"] = std::move(findings);
  return object;
}

Json lintSarif(const LintReport& report, const std::string& file, const std::string& version) {
  Json rules = Json::array();
  for (const auto& rule : report.rules) rules.push_back(sarifRule(rule));
  Json results = Json::array();
  for (const auto& finding : report.findings) {
    results.push_back(sarifResult(report, finding, uriOf(file)));
  }
  Json driver;
  driver["name"] = "proxymanagerctl pac lint";
  driver["version"] = version;
  driver["rules"] = std::move(rules);
  Json run;
  run["tool"] = Json{{"driver", std::move(driver)}};
  run["columnKind"] = "utf16CodeUnits";
  run["results"] = std::move(results);
  Json log;
  log["$schema"] = "https://json.schemastore.org/sarif-2.1.0.json";
  log["version"] = "2.1.0";
  log["runs"] = Json::array({std::move(run)});
  return log;
}

}  // namespace client
