#pragma once

#include <CLI/CLI.hpp>

namespace cli {

// Each subcommand adds itself to the application; its callback runs the command and throws
// `CommandError` to end with a message.
void addMonitorCommand(CLI::App& app);

}  // namespace cli
