#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "cli/Commands.h"
#include "cli/Host.h"
#include "ravelin/Version.h"

namespace {

constexpr const char* kConventions = R"(
Every subcommand prints a readable report, or one JSON document with --json.
Long work shows progress on standard error when it is a terminal; Ctrl-C stops
a search and prints what was settled.
Sizes take suffixes: 10K, 10M, 1.5G, 2T (powers of 1024), 10MB, 1GB (powers of 1000).
Exit status: 0 success, 1 failure, 2 bad arguments.
Run 'ravelin SUBCOMMAND --help' for the options of one subcommand.)";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("ravelin: disk clean-up and maintenance engine", "ravelin");
  app.footer(kConventions);
  app.set_version_flag("--version", std::string("ravelin ") + ravelin::kVersion);
  app.require_subcommand(1, 1);
  app.fallthrough(false);

  cli::addAppsCommand(app);
  cli::addDiskCommand(app);
  cli::addDupesCommand(app);
  cli::addLargeCommand(app);
  cli::addMonitorCommand(app);
  cli::addRulesCommand(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "ravelin: %s\n", e.what());
    std::fprintf(stderr, "Run 'ravelin --help' for usage.\n");
    return cli::kUsage;
  } catch (const cli::CommandError& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "ravelin: %s\n", e.message.c_str());
    return e.status;
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "ravelin: %s\n", e.what());
    return cli::kFailure;
  }
  return cli::kSuccess;
}
