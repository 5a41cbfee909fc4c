// Runs every script of the source tree twice: instrumented, and unchanged. The answers must be
// equal.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "tests/unit/engine/worker/workbench/workbench_engines.h"

namespace {

using pac_engine::Problem;
using pac_engine::WorkerRole;
using workbench::answered;
using workbench::command;
using workbench::Json;
using workbench::load;

const std::vector<std::string> kHosts{
    "localhost",        "printer",       "www.corp.example", "www.example.org", "shop.example.org",
    "Mail.example.org", "known.example", "b.example",        "10.1.2.3",        "intra.corp.test"};

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// All scripts by name. The scripts in the folders of the tests, the documents and the engine are
/// named by their path, and so are the seeds of the fuzz targets that take scripts. The scripts
/// that were recorded with a browser's answers are named by a number.
std::map<std::string, std::string> scripts() {
  const std::filesystem::path source(PROXYMANAGER_SOURCE);
  std::map<std::string, std::string> found;
  for (const auto* const folder : {"tests", "docs", "engine"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(source / folder)) {
      const auto& path = entry.path();
      const bool isSeed = path.parent_path().filename() == "script_text";
      if (entry.is_regular_file() &&
          (path.extension() == ".pac" || path.extension() == ".js" || isSeed))
        found[std::filesystem::relative(path, source)] = contentOf(path);
    }
  }
  const auto recorded = Json::parse(contentOf(source / "tests/browsers/recorded_answers.json"));
  for (const auto& sheet : recorded["sheets"])
    for (const auto& script : sheet["scripts"])
      found["recorded " + std::to_string(found.size())] =
          "var FindProxyForURL = (" + script.get<std::string>() + ")();";
  return found;
}

/// Removes the line from the message about the heap limit. A script that fills its heap does not
/// always end in the same line.
std::string withoutPlace(const std::string& answer) {
  const auto limit = answer.find("the heap limit");
  return limit == answer.npos ? answer : answer.substr(limit);
}

TEST(CorpusScripts, AnswerAlikeWhetherWatchedOrNot) {
  unsigned loaded = 0;
  unsigned answers = 0;
  for (const auto& [name, script] : scripts()) {
    Problem refused;
    const auto plain = load(script, WorkerRole::kAnswers, refused);
    if (plain == nullptr) continue;
    ++loaded;
    const auto parser = load(script, WorkerRole::kParses, refused);
    ASSERT_NE(parser, nullptr) << name;
    const auto report = command(*parser, "instrument");
    ASSERT_TRUE(report.contains("script")) << name << report;
    const auto traced = load(report["script"], WorkerRole::kTraces, refused);
    ASSERT_NE(traced, nullptr) << name << pac_engine::describe(refused);
    for (const auto& host : kHosts) {
      const auto url = "http://" + host + "/x";
      const auto expected = withoutPlace(answered(*plain, url, host));
      EXPECT_EQ(withoutPlace(answered(*traced, url, host)), expected) << name << " " << host;
      // The scripts that try to break an engine answer the same for every host, and take long. So
      // one host is enough.
      if (name.find("/proofs/") != name.npos) break;
      if (!expected.starts_with("line")) ++answers;
    }
  }
  std::printf("%u scripts, %u answers\n", loaded, answers);
  EXPECT_GT(loaded, 150U);
  EXPECT_GT(answers, 800U);
}

}  // namespace
