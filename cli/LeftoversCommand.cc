#include <fmt/format.h>

#include <cstdio>
#include <set>

#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "host/AppFiles.h"
#include "host/Host.h"
#include "host/Scans.h"

namespace cli {

void addLeftoversCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("leftovers", "What applications that are no longer installed left behind");
  auto json = std::make_shared<bool>(false);
  auto remove = std::make_shared<bool>(false);
  auto all = std::make_shared<bool>(false);
  auto yes = std::make_shared<bool>(false);
  auto dryRun = std::make_shared<bool>(false);
  auto wanted = std::make_shared<std::vector<std::string>>();
  command->add_flag("--json", *json,
                    "Print {\"leftovers\": [{\"id\", \"files\": [{\"path\", \"size\", \"kind\"}], "
                    "\"size\"}]}");
  command->add_option("ID", *wanted, "Only what these identifiers left");
  auto* deleteFlag =
      command->add_flag("--delete", *remove, "Delete what the named identifiers left (or --all)");
  command->add_flag("--all", *all, "With --delete: every identifier's leftovers")
      ->needs(deleteFlag);
  command->add_flag("--yes,-y", *yes, "Delete without asking (needed without a terminal)")
      ->needs(deleteFlag);
  command->add_flag("--dry-run,-n", *dryRun, "Show what would be deleted, and delete nothing")
      ->needs(deleteFlag);
  command->footer(
      "An identifier is left over when no installed application answers to it: not by its\n"
      "identifier, the rules' other identifiers for it, a nested identifier, an installed\n"
      "flatpak or a command of that name. What an installed application owns is never listed.\n"
      "Exit status 1 when a deletion left something behind.");
  command->callback([=] {
    if (*remove && wanted->empty() && !*all) {
      throw CommandError{kUsage, "--delete: name the identifiers, or give --all"};
    }
    if (*all && !wanted->empty()) {
      throw CommandError{kUsage, "--all: takes no identifiers"};
    }
    std::set<Core::CaseInsensitiveString> named(wanted->begin(), wanted->end());
    AppFilesScan scan(false, true);
    runToItsEnd(scan);
    std::vector<std::pair<std::string, const AppFiles*>> chosen;
    for (const auto& [id, files] : scan.report().leftovers) {
      if (files.files.empty()) continue;  // nothing was left
      if (!named.empty() && !named.count(Core::CaseInsensitiveString(id))) continue;
      chosen.emplace_back(id, &files);
    }
    if (*remove) {
      std::set<Core::CaseInsensitiveString> present;
      for (const auto& [id, files] : chosen) present.insert(Core::CaseInsensitiveString(id));
      for (const auto& id : named) {
        if (!present.count(id)) {
          throw CommandError{kUsage, fmt::format("{}: nothing is left over under this identifier",
                                                 displayText(id.origin()))};
        }
      }
      std::vector<std::string> paths;
      for (const auto& [id, files] : chosen) {
        for (const auto& file : files->files) paths.push_back(file.url);
      }
      confirmAndDelete(plainDeletion(paths), *yes, *dryRun, *json);
      return;
    }

    std::int64_t total = 0;
    if (*json) {
      std::puts(scan.leftoversJson(named).dump().c_str());
      return;
    }
    for (const auto& [id, files] : chosen) {
      std::printf("%s  %zu %s, %s\n", displayText(id).c_str(), files->files.size(),
                  files->files.size() == 1 ? "entry" : "entries",
                  platform::formatByteCount(files->size).c_str());
      for (const auto& file : files->files) {
        std::printf("    %-10s %10s  %s\n", kindText(file.kind).c_str(), file.sizeString().c_str(),
                    displayText(file.url).c_str());
      }
      total += files->size;
    }
    std::printf("%zu %s left over, %s in all\n", chosen.size(),
                chosen.size() == 1 ? "application" : "applications",
                platform::formatByteCount(total).c_str());
  });
}

}  // namespace cli
