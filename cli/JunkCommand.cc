#include <fmt/format.h>

#include <cstdio>
#include <mutex>
#include <set>

#include "Core/JunkFileFinder.h"
#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "host/AppFiles.h"
#include "host/Host.h"
#include "host/Scans.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"

namespace cli {

namespace {

void printFiles(const char* title, const std::vector<Core::File>& files) {
  if (files.empty()) return;
  std::printf("%s: %zu, %s\n", title, files.size(),
              platform::formatByteCount(totalSize(files)).c_str());
  for (const auto& f : files) {
    std::printf("  %10s  %s\n", f.sizeString().c_str(), displayText(f.url).c_str());
  }
}

void printGroups(const char* title, const std::vector<JunkScan::Group>& groups) {
  if (groups.empty()) return;
  std::printf("%s: %zu, %s\n", title, groups.size(),
              platform::formatByteCount(totalSize(groups)).c_str());
  for (const auto& g : groups) {
    std::printf("  %s\n", displayText(g.id).c_str());
    for (const auto& f : g.files) {
      std::printf("    %-6s %10s  %s\n", kindText(f.kind).c_str(), f.sizeString().c_str(),
                  displayText(f.url).c_str());
    }
  }
}

}  // namespace

void addJunkCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "junk", "System caches, old logs, trash, disk images and applications' caches and logs");
  auto json = std::make_shared<bool>(false);
  auto clean = std::make_shared<bool>(false);
  auto categories = std::make_shared<std::vector<std::string>>();
  auto yes = std::make_shared<bool>(false);
  auto dryRun = std::make_shared<bool>(false);
  command->add_flag(
      "--json", *json,
      "Print {\"caches\", \"logs\", \"trash\", \"disk_images\": [{\"path\", \"size\"}], "
      "\"apps\", \"browsers\": [{\"id\", \"url\", \"files\"}], \"orphans\": [{\"id\", "
      "\"files\"}], \"total\", \"stopped\"}");
  auto* cleanFlag = command->add_flag("--clean", *clean, "Delete what was found");
  command
      ->add_option("--category", *categories,
                   "With --clean: only these categories (caches, logs, trash, disk_images, "
                   "apps, browsers, orphans); disk images only when named")
      ->check(CLI::IsMember(junkCategories()))
      ->needs(cleanFlag);
  command->add_flag("--yes,-y", *yes, "Delete without asking (needed without a terminal)")
      ->needs(cleanFlag);
  command->add_flag("--dry-run,-n", *dryRun, "Show what would be deleted, and delete nothing")
      ->needs(cleanFlag);
  command->footer(
      "caches: the entries of /var/cache, except what a package can't rebuild (debconf,\n"
      "cracklib, dictionaries-common, ldconfig, bind, postgresql). logs: crash reports in\n"
      "/var/crash and, in /var/log and below, only logs no program writes any more (rotated\n"
      "beside their live log, compressed, archived journals; never a database's binary or\n"
      "write-ahead log, and nothing changed in the last hour). trash: the items of your trashes\n"
      "(each one's .trashinfo goes once the item has gone). disk_images: in your home folder.\n"
      "apps, browsers, orphans: the caches and logs the rules describe, for installed\n"
      "applications, for browsers, and for no installed application. Ctrl-C stops the scan and\n"
      "reports what was found (exit status 1).");
  command->callback([=] {
    JunkScan scan;
    StatusLine status;
    InterruptGuard interrupt;
    scan.start({}, [&] {
      status.show(fmt::format("{:3.0f}%  {}", scan.progress() * 100, scan.current()));
    });
    bool stopped = !runMainUntilDoneOrInterrupted([&] { return scan.finished(); }, interrupt);
    if (stopped) {
      platform::runMainUntil(
          [&] {
            scan.stop();
            return scan.finished();
          },
          std::chrono::hours(1));
    }
    status.clear();

    if (*clean) {
      if (stopped) throw CommandError{kFailure, "stopped: nothing deleted"};
      std::set<std::string> chosen(categories->begin(), categories->end());
      if (chosen.empty()) {
        chosen = {"caches", "logs", "trash", "apps", "browsers", "orphans"};
      }
      auto paths = scan.paths(chosen);
      confirmAndDelete(scan.deletion({paths.begin(), paths.end()}), *yes, *dryRun, *json);
      return;
    }

    if (*json) {
      scan.writeJson(
          [](std::string_view piece) { std::fwrite(piece.data(), 1, piece.size(), stdout); });
    } else {
      printFiles("System caches", scan.caches);
      printFiles("Logs", scan.logs);
      printFiles("Trash", scan.trash);
      printFiles("Disk images", scan.diskImages);
      printGroups("Applications", scan.apps);
      printGroups("Browsers", scan.browsers);
      printGroups("Orphans (no installed application owns them)", scan.orphans);
      std::printf("%s of junk in all%s\n", platform::formatByteCount(scan.total()).c_str(),
                  stopped ? " (scan stopped: only what was found before the stop)" : "");
    }
    if (stopped) throw CommandError{kFailure, "stopped"};
  });
}

}  // namespace cli
