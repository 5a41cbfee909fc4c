// Scripts that are known to break script engines. They run in the sandboxed worker. The result must
// be an answer or an error of the script; the worker must never end.
//
// proofs/ has our own scripts. Each is named after the published hole that it tries, and its first
// line describes how it works. If a proof finds the hole, its answer is not "ok". In addition, the
// regression tests of the engine's own source are run. They check their results and throw an
// exception if a result is wrong. The tests that cannot run in a worker are in the list kRefused,
// each with its reason.
//
// The environment variable HOSTILE_ENGINE_WORKER names another worker to test. With a worker whose
// engine has a hole, the proof of that hole must fail. docs/security/README.md lists which proof
// found which hole.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "engine/pac_engine.h"

namespace {

namespace fs = std::filesystem;
using namespace pac_engine;

std::string contentsOf(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<fs::path> scriptsIn(const fs::path& folder) {
  std::vector<fs::path> scripts;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(folder, none)) {
    if (entry.path().extension() == ".js") scripts.push_back(entry.path());
  }
  std::sort(scripts.begin(), scripts.end());
  return scripts;
}

std::string nameOf(const testing::TestParamInfo<fs::path>& test) {
  std::string name = test.param.stem();
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  return name;
}

Options patient() {
  Options options;
  options.timeLimit = std::chrono::minutes(10);  // none of these tests is about time
  if (const char* const worker = std::getenv("HOSTILE_ENGINE_WORKER")) {
    options.workerProgram = worker;
  }
  return options;
}

/// Whether the worker, and not the script, is the reason for the missing answer.
bool isOfTheWorker(const Problem& problem) {
  return problem.message.find("worker") != std::string::npos;
}

/// Whether the script was ended because its heap is full.
bool isOfTheHeap(const Problem& problem) {
  return problem.message.find("heap limit") != std::string::npos;
}

class Hole : public testing::TestWithParam<fs::path> {};

TEST_P(Hole, IsClosed) {
  Problem refused;
  const auto engine = Engine::load(contentsOf(GetParam()), patient(), refused);
  ASSERT_NE(engine, nullptr) << describe(refused);
  const auto worker = engine->workerPid();
  for (int round = 0; round < 3; ++round) {
    const auto reply = engine->evaluate("http://h/", "h");
    // A proof that ends early proves nothing, so a script error does not count as success. The only
    // exceptions are the proofs that fill the heap.
    if (!isOfTheHeap(reply.problem)) {
      EXPECT_EQ(reply.result, "ok") << describe(reply.problem);
    }
    EXPECT_EQ(engine->workerPid(), worker) << describe(reply.problem);
  }
}

INSTANTIATE_TEST_SUITE_P(Published, Hole, testing::ValuesIn(scriptsIn(PROXYMANAGER_PROOFS)),
                         nameOf);

#ifdef PROXYMANAGER_ENGINE_TESTS

const std::regex kAssertions("import [^\n]*assert\\.js\"[^\n]*");
/// Finds scripts that use modules, or the engine's own library for files and processes. The worker
/// has neither.
const std::regex kModule("\"qjs:|(^|\n)(import|export) |(^|\n)await ");

/// The engine's release for which kRefused was made.
const std::string kListedVersion = "0.16.2";
/// Release 0.16.2 has 67 scripts. If the test finds far fewer scripts, it tests almost nothing.
constexpr size_t kFewestScripts = 60;

struct Refusal {
  std::string error;  ///< a part of the message
  std::string reason;
};

const Refusal kTopLevelAwait{"SyntaxError", "awaits at the top level, which only modules do"};
const Refusal kNamesItsFile{"assertion failed", "looks for its file's name in a stack trace"};

/// Scripts that the worker refuses, although the engine works correctly.
const std::map<std::string, Refusal> kRefused = {
    {"array-fromasync-enumerable", kTopLevelAwait},
    {"bug1354", {"SyntaxError", "is to end in a SyntaxError"}},
    {"bug648", {"Error: ok", "is to end in this error"}},
    {"bug775", {"RangeError", "is to end in a RangeError"}},
    {"bug776", {"RangeError", "is to end in a RangeError"}},
    {"bug832", kTopLevelAwait},
    {"bug858", kNamesItsFile},
    {"dynamic_import_rejection_handled", kTopLevelAwait},
    {"fixture_throwing_module", {"Nuke the entire site", "is a module for others, which throws"}},
    {"for-await-normal-close", kTopLevelAwait},
    {"reexport-error-module", kTopLevelAwait},
    {"test_base64", {"TypeError: not a function", "tests atob and btoa, which the worker lacks"}},
    {"test_domexception", {"DOMException is not defined", "the worker lacks DOMException"}},
    {"test_for_of_line_numbers", kNamesItsFile},
    {"test_queue_microtask", {"assertion failed", "the worker lacks queueMicrotask"}},
};

/// Whether a script failed because it uses functions or modules that only the engine's own
/// command-line programs have.
bool isOfTheSurroundings(const Problem& problem) {
  return std::regex_search(problem.message, std::regex("ReferenceError|SyntaxError"));
}

/// A file of the engine's tests as a PAC script. The assertion functions replace their import.
/// These functions are at the end, so that the line numbers of the script do not change.
std::string asPacScript(const fs::path& path) {
  const std::string file = contentsOf(path);
  const std::string script = std::regex_replace(file, kAssertions, "");
  std::string assertions;
  if (script != file) {
    assertions =
        std::regex_replace(contentsOf(path.parent_path() / "assert.js"), std::regex("export "), "");
  }
  return script + "\n;function print() {}\nfunction gc() {}\n" + assertions +
         "\nfunction FindProxyForURL() { return 'ok'; }\n";
}

std::vector<fs::path> scriptsWithoutModules() {
  auto scripts = scriptsIn(PROXYMANAGER_ENGINE_TESTS);
  std::erase_if(scripts, [](const fs::path& path) {
    return path.filename() == "assert.js" || std::regex_search(asPacScript(path), kModule);
  });
  return scripts;
}

class EngineTest : public testing::TestWithParam<fs::path> {};

TEST_P(EngineTest, PassesOrIsRefusedForAListedReason) {
  const auto listed = kRefused.find(GetParam().stem());
  const bool newer = std::string(PROXYMANAGER_ENGINE_VERSION) != kListedVersion;
  Problem refused;
  const auto engine = Engine::load(asPacScript(GetParam()), patient(), refused);
  if (engine) {
    EXPECT_EQ(engine->evaluate("http://h/", "h").result, "ok");
    EXPECT_TRUE(listed == kRefused.end() || newer) << "remove it from kRefused";
    return;
  }
  std::cout << "refused: " << describe(refused) << '\n';
  ASSERT_FALSE(isOfTheWorker(refused)) << refused.message;
  if (listed != kRefused.end()) {
    EXPECT_NE(refused.message.find(listed->second.error), std::string::npos)
        << listed->second.reason << ", but: " << describe(refused);
    return;
  }
  // The engine's archive may be replaced by a newer release without a change here. New scripts of
  // that release may need more additions.
  EXPECT_TRUE(newer && isOfTheSurroundings(refused)) << describe(refused);
}

INSTANTIATE_TEST_SUITE_P(Upstream, EngineTest, testing::ValuesIn(scriptsWithoutModules()), nameOf);

TEST(EngineTests, AreNotMissing) {
  EXPECT_GE(scriptsWithoutModules().size(), kFewestScripts);
}

#endif

}  // namespace
