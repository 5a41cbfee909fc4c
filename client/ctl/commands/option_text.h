// An option whose text may be empty; an empty text differs from a missing option.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>

namespace client {

/// Adds `name` to `command`, shown in its help with `label` and `help`; sets `value`, which lives
/// as long as the command, if the option is given.
inline void addText(CLI::App& command, const char* name, const char* label,
                    std::optional<std::string>& value, const char* help) {
  command
      .add_option_function<std::string>(
          name, [&value](const std::string& text) { value = text; }, help)
      ->option_text(label);
}

}  // namespace client
