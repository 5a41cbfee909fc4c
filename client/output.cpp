#include "client/output.h"

#include <algorithm>
#include <cerrno>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <system_error>

#include "client/command.h"
#include "platform/pac_engine/pac_engine.h"

namespace client {

namespace {

constexpr int kIndent = 2;  // columns, of blocks and of JSON

}  // namespace

void printBlock(std::string_view title, std::span<const Row> rows) {
  std::size_t width = 0;
  for (const auto& row : rows) width = std::max(width, row.name.size());
  std::cout << pac_engine::visible(title) << '\n';
  for (const auto& row : rows) {
    std::cout << std::string(kIndent, ' ') << std::left << std::setw(static_cast<int>(width))
              << row.name << "  " << pac_engine::visible(row.value) << '\n';
  }
  finishOutput();
}

void printJson(const nlohmann::ordered_json& value) {
  using Json = nlohmann::ordered_json;
  std::cout << value.dump(kIndent, ' ', false, Json::error_handler_t::replace) << '\n';
  finishOutput();
}

void finishOutput() {
  errno = 0;
  if (std::cout.flush()) return;
  const int error = errno != 0 ? errno : EIO;
  throw Failure(kOutput, "cannot write the output: " + std::generic_category().message(error));
}

void complain(std::string_view message) {
  std::cerr << "proxymanagerctl: " << pac_engine::visible(message) << '\n';
}

}  // namespace client
