#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "cli/Commands.h"
#include "helper/HelperConnection.h"
#include "host/Host.h"
#include "platform/Locations.h"
#include "ravelin/Version.h"

namespace {

constexpr const char* kConventions = R"(
Every subcommand prints a readable report, or one JSON document with --json.
Long work shows progress on standard error when it is a terminal; Ctrl-C stops
a search and prints what was settled.
Sizes take suffixes: 10K, 10M, 1.5G, 2T (powers of 1024), 10MB, 1GB (powers of 1000).
Exit status: 0 success, 1 failure, 2 bad arguments.
Run 'ravelin SUBCOMMAND --help' for the options of one subcommand.)";

// The searches keep a folder descriptor for each folder whose files they read, and the soft
// limit on open files is often far below what the system allows: take what the hard limit
// gives, up to a bound. Nothing here waits on descriptors with select().
void raiseOpenFileLimit() {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  const rlim_t wanted = std::min<rlim_t>(limit.rlim_max, 65536);
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) {
    limit.rlim_cur = wanted;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  raiseOpenFileLimit();
  CLI::App app("ravelin: disk clean-up and maintenance engine", "ravelin");
  app.footer(kConventions);
  app.set_version_flag("--version", std::string("ravelin ") + ravelin::kVersion);
  app.require_subcommand(1, 1);
  // Global options may stand before or after the subcommand.
  app.fallthrough(true);
  app.add_option_function<std::string>(
         "--helper-socket",
         [](const std::string& path) {
           if (path.empty()) throw CLI::ValidationError("--helper-socket", "an empty path");
           helper::setHelperSocket(path);
         },
         "The privileged helper's socket (a helper the caller started itself; nothing is "
         "installed)")
      ->trigger_on_parse();

  app.add_option_function<std::string>(
         "--root",
         [](const std::string& root) {
           if (root.empty()) throw CLI::ValidationError("--root", "an empty path");
           std::error_code error;
           auto resolved = std::filesystem::canonical(root, error);
           if (error || !std::filesystem::is_directory(resolved, error)) {
             throw CLI::ValidationError("--root", cli::displayText(root) + ": not a folder");
           }
           platform::setCurrentLocations(platform::Locations::fromEnvironment(resolved.string()));
         },
         "Take every location (home, XDG folders, /var/cache, /var/log, applications, flatpak "
         "and snap folders) below DIR: a mounted disk, a container image, a test fixture")
      ->type_name("DIR")
      ->trigger_on_parse();

  cli::addAppsCommand(app);
  cli::addDeleteCommand(app);
  cli::addDiskCommand(app);
  cli::addDupesCommand(app);
  cli::addHelperCommand(app);
  cli::addJunkCommand(app);
  cli::addLargeCommand(app);
  cli::addLeftoversCommand(app);
  cli::addMonitorCommand(app);
  cli::addRulesCommand(app);
  cli::addServeCommand(app);
  cli::addStartupCommand(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    // An option before any subcommand that no one knows is reported as such, not as a missing
    // subcommand.
    for (int i = 1; i < argc && dynamic_cast<const CLI::ValidationError*>(&e) == nullptr; ++i) {
      std::string argument = argv[i];
      auto named = app.get_subcommands([&](CLI::App* sub) { return sub->get_name() == argument; });
      if (!named.empty()) break;
      if (argument.size() > 1 && argument[0] == '-') {
        std::fprintf(stderr, "ravelin: unknown option: %s\n", cli::displayText(argument).c_str());
        std::fprintf(stderr, "Run 'ravelin --help' for usage.\n");
        return cli::kUsage;
      }
    }
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
