#include <fmt/format.h>

#include <cstdio>
#include <set>

#include "Core/AppBundle.h"
#include "Core/PublicSuffixList.h"
#include "Core/RuleManager.h"
#include "cli/Commands.h"
#include "host/AppFiles.h"
#include "host/Host.h"
#include "host/Scans.h"

namespace cli {

void addAppsCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("apps", "The installed applications as the scanners know them");
  auto json = std::make_shared<bool>(false);
  auto files = std::make_shared<bool>(false);
  auto wanted = std::make_shared<std::vector<std::string>>();
  command->add_flag(
      "--json", *json,
      "Print {\"apps\": [{\"id\", \"names\", \"url\", \"organization\", \"nested\", \"icon\"}]}; "
      "with "
      "--files each also has \"files\": [{\"path\", \"size\", \"kind\", \"owner\"}], \"size\" "
      "(of the files) and \"appSize\" (of the application itself)");
  command->add_flag("--files", *files,
                    "Also find each application's files (caches, logs, support, ...) and "
                    "measure them");
  command->add_option("ID", *wanted, "Only the applications with these identifiers");
  command->footer(
      "An owner says by which of the application's names a file was tied to it: id:, name:\n"
      "(its name or program) or organization:. Applications on a read-only mount are listed\n"
      "but their files aren't looked for. Exit status 1 when a named application isn't\n"
      "installed.");
  command->callback([=] {
    std::set<Core::CaseInsensitiveString> named(wanted->begin(), wanted->end());
    std::set<Core::CaseInsensitiveString> seen;
    AppFilesScan scan(*files, false);
    runToItsEnd(scan);
    if (*json) {
      std::puts(scan.appsJson(named, &seen).dump().c_str());
    } else {
      std::size_t count = 0;
      std::int64_t total = 0;
      for (const auto& app : installedApps(scan.report(), named)) {
        seen.insert(app.id);
        ++count;
        std::string names;
        for (const auto& n : app.names) names += (names.empty() ? "" : ", ") + displayText(n);
        std::printf(
            "%s  (%s)%s\n  %s\n", displayText(app.id.origin()).c_str(), names.c_str(),
            app.organization ? fmt::format("  by {}", displayText(*app.organization)).c_str() : "",
            displayText(app.url).c_str());
        for (const auto& n : app.nested) std::printf("    nested: %s\n", displayText(n).c_str());
        if (!*files) continue;
        std::int64_t size = app.files ? app.files->size : 0;
        if (app.files) {
          for (const auto& file : app.files->files) {
            std::printf("    %-10s %10s  %s\n", kindText(file.kind).c_str(),
                        file.sizeString().c_str(), displayText(file.url).c_str());
          }
        }
        std::printf("    %zu files, %s; the application itself %s\n",
                    app.files ? app.files->files.size() : 0,
                    platform::formatByteCount(size).c_str(),
                    platform::formatByteCount(app.appSize).c_str());
        total += size;
      }
      if (*files) {
        std::printf("%zu %s, %s in their files\n", count,
                    count == 1 ? "application" : "applications",
                    platform::formatByteCount(total).c_str());
      } else {
        std::printf("%zu %s\n", count, count == 1 ? "application" : "applications");
      }
    }
    for (const auto& id : named) {
      if (!seen.count(id)) {
        throw CommandError{kFailure,
                           fmt::format("no installed application is {}", displayText(id.origin()))};
      }
    }
  });
}

}  // namespace cli
