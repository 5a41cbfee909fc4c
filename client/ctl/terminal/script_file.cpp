#include "client/ctl/terminal/script_file.h"

#include <unistd.h>

#include <system_error>
#include <utility>

#include "base/small_file.h"
#include "client/ctl/failure.h"

namespace client {

namespace {

Failure failureOf(const base::FileFailure& failure, const std::string& name) {
  switch (failure.problem) {
    case base::FileProblem::tooLong:
      return {kRefused, shownName(name) +
                            ": the script is longer than 512,000 bytes, the most that the daemon "
                            "takes"};
    case base::FileProblem::notRegular:
      return {kNoInput, "cannot read " + name +
                            ": it is no regular file; for a pipe, give \"-\" and connect it to "
                            "standard input"};
    default:
      return {kNoInput, "cannot read " + shownName(name) + ": " +
                            std::generic_category().message(failure.error)};
  }
}

}  // namespace

std::string shownName(const std::string& name) {
  return name == "-" ? "standard input" : name;
}

std::string readScript(const std::string& name) {
  base::FileText file = name == "-"
                            ? base::readToEnd(STDIN_FILENO, kMaxScriptBytes)
                            : base::readFile(name.c_str(), base::inTrustedFolder(kMaxScriptBytes));
  if (file.failure) throw failureOf(file.failure, name);
  return std::move(file.text);
}

}  // namespace client
