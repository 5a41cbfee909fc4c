#include "client/ctl/commands/test_report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "base/visible.h"
#include "client/ctl/terminal/shown_text.h"

namespace client {

namespace {

/// `text` as a text in YAML. The function writes it as JSON, because JSON is valid YAML.
std::string quoted(const std::string& text) {
  using Json = nlohmann::ordered_json;
  return Json(text).dump(-1, ' ', true, Json::error_handler_t::replace);
}

/// `text` for a line of TAP, in which "#" starts a directive.
std::string tapText(const std::string& text) {
  std::string escaped;
  for (const char c : base::visible(text)) {
    if (c == '#' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

/// `text` with U+FFFD in place of U+FFFE and U+FFFF, which XML cannot contain.
std::string withoutNoncharacters(std::string text) {
  for (std::size_t at = 0; (at = text.find("\xEF\xBF", at)) != std::string::npos; at += 2) {
    if (at + 2 < text.size() && (text[at + 2] == '\xBE' || text[at + 2] == '\xBF'))
      text[at + 2] = '\xBD';
  }
  return text;
}

/// `text` for XML content or attributes. XML cannot contain control characters.
std::string xmlText(const std::string& text) {
  std::string escaped;
  for (const char c : withoutNoncharacters(base::visible(text))) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string secondsOf(std::chrono::microseconds time) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.6f", static_cast<double>(time.count()) / 1e6);
  return text.data();
}

std::string attribute(const char* name, const std::string& value) {
  return std::string(" ") + name + "=\"" + xmlText(value) + '"';
}

std::string suiteBegin(const TestedFiles& files, std::size_t tests, std::size_t failures,
                       std::size_t errors, std::chrono::microseconds time) {
  const auto counts =
      attribute("tests", std::to_string(tests)) + attribute("failures", std::to_string(failures)) +
      attribute("errors", std::to_string(errors)) + attribute("time", secondsOf(time));
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites" + counts + ">\n  <testsuite" +
         attribute("name", files.cases) + counts + ">\n";
}

constexpr const char* kSuiteEnd = "  </testsuite>\n</testsuites>\n";

}  // namespace

std::string tapReport(std::span<const TestOutcome> outcomes, const TestedFiles& files) {
  auto report = "TAP version 14\n1.." + std::to_string(outcomes.size()) + '\n';
  std::size_t number = 0;
  for (const auto& outcome : outcomes) {
    const auto& given = outcome.given;
    report += (outcome.isPassed() ? "ok " : "not ok ") + std::to_string(++number) + " - " +
              tapText(files.cases) + ':' + std::to_string(given.line) + ' ' +
              tapText(withoutPassword(given.url)) + '\n';
    if (outcome.isPassed()) continue;
    report += "  ---\n  expected: " + quoted(given.expected) +
              "\n  actual: " + quoted(outcome.shownAnswer()) +
              "\n  line: " + std::to_string(given.line) + "\n  ...\n";
  }
  return report;
}

std::string tapBailOut(const std::string& reason) {
  return "TAP version 14\nBail out! " + tapText(reason) + '\n';
}

std::string junitReport(std::span<const TestOutcome> outcomes, const TestedFiles& files) {
  std::size_t failed = 0;
  std::chrono::microseconds time{0};
  std::string cases;
  for (const auto& outcome : outcomes) {
    const auto& given = outcome.given;
    time += outcome.took;
    cases +=
        "    <testcase" + attribute("name", withoutPassword(given.url) + " -> " + given.expected) +
        attribute("classname", files.script) + attribute("file", files.cases) +
        attribute("line", std::to_string(given.line)) + attribute("time", secondsOf(outcome.took));
    if (outcome.isPassed()) {
      cases += "/>\n";
      continue;
    }
    ++failed;
    cases += ">\n      <failure" + attribute("type", "answer") +
             attribute("message", "the answer is " + outcome.shownAnswer()) + ">" +
             xmlText(files.cases) + ':' + std::to_string(given.line) + ": expected " +
             xmlText(given.expected) + ", got " + xmlText(outcome.shownAnswer()) +
             "</failure>\n    </testcase>\n";
  }
  return suiteBegin(files, outcomes.size(), failed, 0, time) + cases + kSuiteEnd;
}

std::string junitRefusal(const std::string& reason, const TestedFiles& files) {
  return suiteBegin(files, 1, 0, 1, {}) + "    <testcase" + attribute("name", "the script loads") +
         attribute("classname", files.script) + ">\n      <error" + attribute("type", "refused") +
         attribute("message", reason) + "/>\n    </testcase>\n" + kSuiteEnd;
}

}  // namespace client
