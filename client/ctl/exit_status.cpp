#include "client/ctl/exit_status.h"

#include <algorithm>

namespace client {

namespace {

std::string lineOf(const StatusText& row) {
  constexpr std::size_t kTextColumn = 7;
  auto line = "  " + std::to_string(row.status);
  line.resize(kTextColumn, ' ');
  for (const char* c = row.text; *c != '\0'; ++c) {
    line += *c;
    if (*c == '\n') line.append(kTextColumn, ' ');
  }
  return line + '\n';
}

}  // namespace

std::string statusHelp(std::initializer_list<StatusText> own,
                       std::initializer_list<ExitStatus> shared) {
  std::string help;
  for (const auto& row : own) help += lineOf(row);
  for (const auto& row : kStatusTexts) {
    if (std::find(shared.begin(), shared.end(), row.status) != shared.end()) help += lineOf(row);
  }
  return help;
}

std::string statusHelp() {
  std::string help;
  for (const auto& row : kStatusTexts) help += lineOf(row);
  return help;
}

}  // namespace client
