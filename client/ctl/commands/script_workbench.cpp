#include "client/ctl/commands/script_workbench.h"

#include <chrono>
#include <utility>

#include "base/visible.h"
#include "client/ctl/failure.h"

namespace client {

namespace {

/// Time limit of a command: ten times the time that the longest script needs on a current machine.
constexpr std::chrono::seconds kParserTime{10};

/// Refuses a report. The process that wrote the report has read a foreign script, so the report may
/// contain anything.
[[noreturn]] void refuseReport(const std::string& file) {
  throw Failure(kInternal, file + ": the workbench sent what is no report");
}

}  // namespace

std::unique_ptr<pac_engine::Engine> openParser(std::string_view script, const std::string& file) {
  pac_engine::Options options;
  options.role = pac_engine::WorkerRole::kParses;
  options.timeLimit = kParserTime;
  options.endsWithCaller = true;
  pac_engine::Problem refused;
  auto parser = pac_engine::Engine::load(script, std::move(options), refused);
  if (!parser) throw Failure(kRefused, file + ": " + pac_engine::describe(refused));
  return parser;
}

nlohmann::json askParser(pac_engine::Engine& parser, std::string_view command,
                         const nlohmann::json& argument, const std::string& file) {
  pac_engine::Problem problem;
  const auto text = parser.command(command, argument.dump(), problem);
  if (!text) throw Failure(kRefused, file + ": " + pac_engine::describe(problem));
  auto report = nlohmann::json::parse(*text, nullptr, false);
  if (!report.is_object()) refuseReport(file);
  if (const auto unparsed = report.find("unparsed"); unparsed != report.end()) {
    if (!unparsed->is_string() || !report["line"].is_number_unsigned()) refuseReport(file);
    const pac_engine::Problem why{base::visible(unparsed->get<std::string>()),
                                  report["line"].get<std::uint32_t>()};
    throw Failure(kRefused, file +
                                ": the workbench's parser does not take this script, though the "
                                "engine may: " +
                                pac_engine::describe(why));
  }
  return report;
}

InstrumentedScript instrumented(std::string_view script, const std::string& file) {
  const auto parser = openParser(script, file);
  const auto report = askParser(*parser, "instrument", {{"source", true}}, file);
  try {
    return instrumentedOf(report);
  } catch (const std::exception&) {
    refuseReport(file);
  }
}

}  // namespace client
