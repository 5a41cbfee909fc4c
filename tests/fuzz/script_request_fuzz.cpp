// Tests the reading of requests to the server of pushed scripts. The reader accepts the same
// requests as a regular expression, and no file name leads out of the folder.
#include <regex>
#include <string>

#include "settings/script_server.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string head(fuzz::textOf(data, size).substr(0, settings::kMaxRequestBytes));
  const auto request = settings::readRequest(head);
  static const std::regex form(R"((GET|HEAD) /([^ ]*) HTTP/1\.[^]*)");
  const std::string line = head.substr(0, head.find("\r\n"));
  std::smatch parts;
  // std::regex needs a stack frame for each byte.
  if (line.size() > 1000) return 0;
  const bool matches = std::regex_match(line, parts, form);
  require(matches == request.has_value(), "one reading or none");
  if (!request) return 0;
  require(request->isHead == (parts[1] == "HEAD"), "the method");
  require(request->name == parts[2], "the name");
  if (settings::isScriptName(request->name)) {
    require(request->name.size() == 20 && request->name.find('/') == std::string::npos &&
                request->name.find('\0') == std::string::npos,
            "a script's name is a file of the folder");
  }
  return 0;
}
