// An option whose text may be empty; an empty text differs from a missing option.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>

namespace client {

/// Adds the option `name` to `command`, with `label` and `help` in its help text. If the option is
/// given, it sets `value`, which must live as long as `command`.
inline void addText(CLI::App& command, const char* name, const char* label,
                    std::optional<std::string>& value, const char* help) {
  command
      .add_option_function<std::string>(
          name, [&value](const std::string& text) { value = text; }, help)
      ->option_text(label);
}

}  // namespace client
