// Options of the commands that pass answers to other programs.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/daemon/answers.h"

namespace client {

/// Adds --ask-local and --credentials-for to `command`. They set `options`, which must live as long
/// as `command`.
inline void addAnswerOptions(CLI::App& command, AnswerOptions& options) {
  command.add_flag("--ask-local", options.askLocal,
                   "Ask about this machine, too: localhost,\n127.0.0.0/8, ::1 and the like");
  command
      .add_option("--credentials-for", options.credentialHosts,
                  "Give user name and password to proxies of\nHOST, too, if a script names them")
      ->option_text("HOST")
      ->allow_extra_args(false);
}

}  // namespace client
