#include <cstring>

#include "base/small_file.h"
#include "relay/peer.h"
#include "relay/relay.h"

namespace relay {

namespace {

std::string problemText(const base::FileFailure& failure) {
  return failure.error != 0 ? std::strerror(failure.error) : "cannot be read";
}

/// Reads the credentials file. The file contains passwords, so it must belong to root or to the
/// relay's user.
std::vector<Problem> loadCredentials(Configured& configured) {
  const auto& path = configured.configuration.credentialsFile;
  base::FileDemands demands;
  demands.mostBytes = kMaxFileBytes;
  const auto file = base::readFile(path.c_str(), demands);
  if (file.failure) return {{0, path + ": " + problemText(file.failure)}};
  auto read = readCredentials(file.text);
  for (auto& problem : read.problems) {
    problem.text = path + ":" + std::to_string(problem.line) + ": " + problem.text;
    problem.line = 0;
  }
  configured.credentials = std::move(read.byHost);
  return std::move(read.problems);
}

/// Adds a problem for each unknown name in deny-users, and a warning for each unknown name in the
/// other lists.
void checkUsers(Configured& configured, std::vector<Problem>& problems) {
  const auto& configuration = configured.configuration;
  const auto unknown = [](const char* key, const std::vector<std::string>& names) {
    std::vector<std::string> texts;
    for (const auto& name : unknownUsers(names)) {
      texts.push_back(std::string(key) + ": no user or group is named \"" + name + "\"");
    }
    return texts;
  };
  for (auto& text : unknown("deny-users", configuration.denyUsers)) {
    problems.push_back({0, std::move(text)});
  }
  configured.warnings = unknown("allow-users", configuration.allowUsers);
  for (auto& text : unknown("credentials-for", configuration.credentialsFor)) {
    configured.warnings.push_back(std::move(text));
  }
}

}  // namespace

std::vector<Problem> load(const std::string& path, bool mayBeMissing, Configured& configured) {
  const auto file = base::readFile(path.c_str(), base::inTrustedFolder(kMaxFileBytes));
  if (file.failure.problem == base::FileProblem::missing && mayBeMissing) return {};
  if (file.failure) return {{0, problemText(file.failure)}};
  auto read = readConfiguration(file.text);
  configured.configuration = std::move(read.configuration);
  checkUsers(configured, read.problems);
  if (!read.problems.empty() || configured.configuration.credentialsFile.empty()) {
    return std::move(read.problems);
  }
  return loadCredentials(configured);
}

}  // namespace relay
