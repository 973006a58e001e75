#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "host/Host.h"
#include "host/Scan.h"

namespace cli {

using namespace host;

// Each subcommand adds itself to the application; its callback runs the command and throws
// `CommandError` to end with a message.
void addAppsCommand(CLI::App& app);
void addDiskCommand(CLI::App& app);
void addDeleteCommand(CLI::App& app);
void addDupesCommand(CLI::App& app);
void addHelperCommand(CLI::App& app);
void addJunkCommand(CLI::App& app);
void addLargeCommand(CLI::App& app);
void addLeftoversCommand(CLI::App& app);
void addMonitorCommand(CLI::App& app);
void addRulesCommand(CLI::App& app);
void addServeCommand(CLI::App& app);
void addStartupCommand(CLI::App& app);

// Runs `scan` to its end with its progress on a terminal.
void runToItsEnd(ScanJob& scan);

// The absolute path of a FOLDER argument; a usage error when it doesn't exist or isn't a folder.
std::string resolveFolderArgument(const std::string& folder);

}  // namespace cli
