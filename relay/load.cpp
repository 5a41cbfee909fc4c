#include <cstring>

#include "base/small_file.h"
#include "relay/relay.h"

namespace relay {

namespace {

std::string problemText(const base::FileFailure& failure) {
  return failure.error != 0 ? std::strerror(failure.error) : "cannot be read";
}

/// The file holds passwords, so it must belong to root or to the relay's user.
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

}  // namespace

std::vector<Problem> load(const std::string& path, bool mayBeMissing, Configured& configured) {
  const auto file = base::readFile(path.c_str(), base::inTrustedFolder(kMaxFileBytes));
  if (file.failure.problem == base::FileProblem::missing && mayBeMissing) return {};
  if (file.failure) return {{0, problemText(file.failure)}};
  auto read = readConfiguration(file.text);
  configured.configuration = std::move(read.configuration);
  if (!read.problems.empty() || configured.configuration.credentialsFile.empty()) {
    return std::move(read.problems);
  }
  return loadCredentials(configured);
}

}  // namespace relay
