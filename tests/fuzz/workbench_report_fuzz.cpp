// Tests the reading of reports of the workbench, which has read a foreign script. Either a report
// is refused, or its numbers refer to places that exist.
#include <nlohmann/json.hpp>

#include "client/ctl/commands/lint_report.h"
#include "client/ctl/commands/workbench_report.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

void checkScript(const nlohmann::json& report) {
  const auto script = client::instrumentedOf(report);
  for (const auto& place : script.places) {
    require(place.function < script.functions.size(), "a place is in a function");
    require(place.owner < static_cast<int>(script.places.size()), "an owner is a place");
  }
}

void checkTrace(const nlohmann::json& report) {
  const std::vector<client::Place> places(3,
                                          client::Place{"sh", 1, 1, 1, "isInNet()", 0, -1, false});
  const auto trace = client::traceOf(report, places);
  std::int64_t sum = 0;
  for (const auto& event : trace.events) {
    require(event.place || event.call, "an event is a value or a call");
    require(!event.place || *event.place < places.size(), "an event has a place");
    if (event.call) sum += event.call->microseconds;
  }
  require(sum >= 0, "times can be added");
  for (const auto& count : trace.counts)
    require(count.place < places.size(), "a count has a place");
}

void checkLint(const nlohmann::json& report) {
  const auto lint = client::lintReportOf(report);
  require(client::lintLines(lint, "a.pac").size() > lint.findings.size(),
          "each finding has a line, and there is a last one");
  client::lintJson(lint, "a.pac");
  client::lintSarif(lint, "a.pac", "1.2.3");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto report = nlohmann::json::parse(fuzz::textOf(data, size), nullptr, false);
  for (const auto check : {checkScript, checkTrace, checkLint}) {
    try {
      check(report);
    } catch (const std::exception&) {
      // The report is refused, as in proxymanagerctl.
    }
  }
  return 0;
}
