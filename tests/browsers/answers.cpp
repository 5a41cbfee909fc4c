// Runs only the worker's script engine, with names, addresses and a clock that the caller provides.
//
// usage: answers SCRIPT [own=ADDRESS,...] [NAME=ADDRESS,...] ...
//
// Loads SCRIPT, then reads lines of three fields, separated by tabs: seconds since 1970, URL, host.
// For each line it prints the answer of the script, or "!" and the error. The variable TZ sets the
// zone.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/ascii.h"
#include "engine/host/name_lookup.h"
#include "engine/worker/pac_environment.h"
#include "engine/worker/script_engine.h"

namespace {

using pac_worker::AddressFamily;
using Texts = std::vector<std::string>;

Texts split(std::string_view text, char separator) {
  Texts parts;
  for (;;) {
    const std::size_t end = text.find(separator);
    parts.emplace_back(text.substr(0, end));
    if (end == text.npos) return parts;
    text.remove_prefix(end + 1);
  }
}

class Environment : public pac_worker::PacEnvironment {
 public:
  explicit Environment(pac_engine::StaticNames given) : names(source(std::move(given))) {}

  pac_engine::NameLookup names;
  Texts own;
  std::int64_t clock = 0;

  Texts resolve(std::string_view name, AddressFamily family) override {
    // The browser's resolver rules depend on letter case. So a name with capitals has no address in
    // the browser.
    if (base::isAscii(name) && base::lowerCase(name) != name) return {};
    return names.resolve(name, family, pac_engine::Deadline::max(), kNobody);
  }
  Texts ownAddresses(AddressFamily family) override { return of(family, own); }
  std::optional<std::int64_t> stoppedClock() override { return clock; }
  void alert(std::string_view /*text*/) override {}

 private:
  static constexpr int kNobody = -1;  ///< no descriptor: only a lookup at a name server watches one

  static pac_engine::NameSource source(pac_engine::StaticNames given) {
    pac_engine::NameSource names;
    names.staticNames = std::move(given);
    return names;
  }
  static Texts of(AddressFamily family, const Texts& all) {
    Texts some;
    for (const std::string& address : all)
      if (family == AddressFamily::kAny || address.find(':') == address.npos)
        some.push_back(address);
    return some;
  }
};

}  // namespace

int main(int count, char** arguments) {
  if (count < 2) return 2;
  pac_engine::StaticNames names;
  Texts own;
  for (int i = 2; i < count; ++i) {
    const Texts pair = split(arguments[i], '=');
    if (pair.size() != 2) return 2;
    (pair[0] == "own" ? own : names[pair[0]]) = split(pair[1], ',');
  }
  Environment environment(std::move(names));
  environment.own = std::move(own);
  std::ifstream file(arguments[1], std::ios::binary);
  const std::string script{std::istreambuf_iterator<char>(file), {}};
  pac_worker::ScriptLimits limits;
  limits.time = std::chrono::minutes(5);
  pac_worker::ScriptEngine engine(environment, limits);
  if (const auto error = engine.load(script)) {
    std::cerr << "line " << error->line << ": " << error->message << '\n';
    return 1;
  }
  for (std::string line; std::getline(std::cin, line);) {
    const Texts fields = split(line, '\t');
    if (fields.size() != 3) return 2;
    environment.names.begin();
    environment.clock = std::strtoll(fields[0].c_str(), nullptr, 10);
    const auto evaluation = engine.evaluate(fields[1], fields[2]);
    std::cout << (evaluation.result ? *evaluation.result : "!" + evaluation.problem.message)
              << '\n';
  }
  return 0;
}
