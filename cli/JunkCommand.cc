#include <fmt/format.h>

#include <cstdio>
#include <mutex>
#include <set>

#include "Core/JunkFileFinder.h"
#include "cli/AppFiles.h"
#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "host/Host.h"
#include "platform/Files.h"

namespace cli {

namespace {

// The categories of the report, in its order, as `--category` and the JSON keys name them.
const std::vector<std::string> kCategories = {"caches", "logs",     "trash",  "disk_images",
                                              "apps",   "browsers", "orphans"};

struct Group {
  std::string id;
  std::string url;  // of the application; empty for orphans
  std::vector<Core::AppFile> files;
};

// Everything a scan reports. The three system categories arrive on the scan's queue, the rest
// on the main queue.
class JunkReport final : public Core::JunkFileFinderDelegate {
 public:
  void junkFileFinderCurrentURL(const std::string& url) override {
    status.show(fmt::format("{:3.0f}%  {}", progress * 100, url));
  }
  void junkFileFinderProgress(double fraction) override { progress = fraction; }
  void junkFileFinderFoundSystemCache(const Core::File& file) override { add(caches, file); }
  void junkFileFinderFoundLog(const Core::File& file) override { add(logs, file); }
  void junkFileFinderFoundTrashItem(const Core::File& file) override { add(trash, file); }
  void junkFileFinderDidFinishSystemFiles() override {}
  void junkFileFinderFoundDiskImages(const std::vector<Core::File>& files) override {
    diskImages = files;
  }
  void junkFileFinderFoundAppJunk(const Core::MacAppJunkFile& junk) override {
    apps.push_back(Group{junk.bundleID.origin(), junk.appURL, junk.files});
  }
  void junkFileFinderFoundOrphanJunk(const Core::AppJunkFile& junk) override {
    orphans.push_back(Group{junk.id.origin(), "", junk.files});
  }
  void junkFileFinderFoundBrowserJunk(const Core::MacAppJunkFile& junk) override {
    if (!junk.files.empty())
      browsers.push_back(Group{junk.bundleID.origin(), junk.appURL, junk.files});
  }
  void junkFileFinderDidFinish() override { finished = true; }

  // The paths of the chosen categories, each once.
  std::vector<std::string> paths(const std::set<std::string>& chosen) const {
    std::vector<std::string> out;
    std::set<std::string> seen;
    auto take = [&](const std::string& path) {
      if (seen.insert(path).second) out.push_back(path);
    };
    if (chosen.count("caches"))
      for (const auto& f : caches) take(f.url);
    if (chosen.count("logs"))
      for (const auto& f : logs) take(f.url);
    if (chosen.count("trash"))
      for (const auto& f : trash) take(f.url);
    if (chosen.count("disk_images"))
      for (const auto& f : diskImages) take(f.url);
    for (const auto& [name, groups] : {std::pair{"apps", &apps}, std::pair{"browsers", &browsers},
                                       std::pair{"orphans", &orphans}}) {
      if (!chosen.count(name)) continue;
      for (const auto& group : *groups) {
        for (const auto& f : group.files) take(f.url);
      }
    }
    return out;
  }

  std::vector<Core::File> caches, logs, trash, diskImages;
  std::vector<Group> apps, browsers, orphans;
  bool finished = false;
  double progress = 0;
  StatusLine status;

 private:
  void add(std::vector<Core::File>& list, const Core::File& file) {
    std::lock_guard lock(mutex_);
    list.push_back(file);
  }
  std::mutex mutex_;
};

std::int64_t sum(const std::vector<Core::File>& files) {
  std::int64_t total = 0;
  for (const auto& f : files) total += f.size;
  return total;
}

std::int64_t sum(const std::vector<Group>& groups) {
  std::int64_t total = 0;
  for (const auto& g : groups) {
    for (const auto& f : g.files) total += f.size;
  }
  return total;
}

nlohmann::json filesJson(const std::vector<Core::File>& files) {
  nlohmann::json out = nlohmann::json::array();
  for (const auto& f : files) out.push_back({{"path", jsonText(f.url)}, {"size", f.size}});
  return out;
}

nlohmann::json groupsJson(const std::vector<Group>& groups, bool withURL) {
  nlohmann::json out = nlohmann::json::array();
  for (const auto& g : groups) {
    nlohmann::json files = nlohmann::json::array();
    for (const auto& f : g.files) files.push_back(fileJson(f, false));
    nlohmann::json entry = {{"id", jsonText(g.id)}, {"files", files}};
    if (withURL) entry["url"] = jsonText(g.url);
    out.push_back(entry);
  }
  return out;
}

void printFiles(const char* title, const std::vector<Core::File>& files) {
  if (files.empty()) return;
  std::printf("%s: %zu, %s\n", title, files.size(), platform::formatByteCount(sum(files)).c_str());
  for (const auto& f : files) {
    std::printf("  %10s  %s\n", f.sizeString().c_str(), displayText(f.url).c_str());
  }
}

void printGroups(const char* title, const std::vector<Group>& groups) {
  if (groups.empty()) return;
  std::printf("%s: %zu, %s\n", title, groups.size(),
              platform::formatByteCount(sum(groups)).c_str());
  for (const auto& g : groups) {
    std::printf("  %s\n", displayText(g.id).c_str());
    for (const auto& f : g.files) {
      std::printf("    %-6s %10s  %s\n", kindText(f.kind).c_str(), f.sizeString().c_str(),
                  displayText(f.url).c_str());
    }
  }
}

// A trashed item and its description in the trash's "info" folder, which goes with it.
std::optional<std::string> trashInfoOf(const std::string& item) {
  std::string files = platform::deletingLastPathComponent(item);
  if (platform::lastPathComponent(files) != "files") return std::nullopt;
  std::string info = platform::joinPath(platform::deletingLastPathComponent(files), "info");
  std::string path = platform::joinPath(info, platform::lastPathComponent(item) + ".trashinfo");
  if (!platform::fileExists(path)) return std::nullopt;
  return path;
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
      ->check(CLI::IsMember(kCategories))
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
    if (Core::RuleManager::shared() == nullptr) {
      throw CommandError{kFailure, Core::RuleManager::sharedLoadError()};
    }
    auto report = std::make_shared<JunkReport>();
    auto finder = Core::JunkFileFinder::create();
    finder->delegate = report;
    InterruptGuard interrupt;
    finder->start();
    bool stopped = !runMainUntilDoneOrInterrupted([&] { return report->finished; }, interrupt);
    if (stopped) {
      // Each stage ends at its next step; the application stage, once it starts, too.
      platform::runMainUntil(
          [&] {
            finder->stop();
            return report->finished;
          },
          std::chrono::hours(1));
    }
    report->status.clear();

    if (*clean) {
      if (stopped) throw CommandError{kFailure, "stopped: nothing deleted"};
      std::set<std::string> chosen(categories->begin(), categories->end());
      if (chosen.empty()) {
        chosen = {"caches", "logs", "trash", "apps", "browsers", "orphans"};
      }
      DeletionRequest request;
      std::set<std::string> trashItems;
      for (const auto& f : report->trash) trashItems.insert(f.url);
      for (const auto& f : report->logs) request.quiet.insert(f.url);
      for (const auto& path : report->paths(chosen)) {
        if (auto refused = hostRefusal(path)) {
          request.leftAlone.emplace_back(path, "refused: " + *refused);
          continue;
        }
        request.paths.push_back(path);
        if (trashItems.count(path)) {
          // The description goes once the item has gone, and stays with an item that stays.
          if (auto info = trashInfoOf(path)) {
            request.paths.push_back(*info);
            request.after.emplace(*info, path);
          }
        }
      }
      confirmAndDelete(request, *yes, *dryRun, *json);
      return;
    }

    const std::int64_t total = sum(report->caches) + sum(report->logs) + sum(report->trash) +
                               sum(report->diskImages) + sum(report->apps) + sum(report->browsers) +
                               sum(report->orphans);
    if (*json) {
      nlohmann::json out = {{"caches", filesJson(report->caches)},
                            {"logs", filesJson(report->logs)},
                            {"trash", filesJson(report->trash)},
                            {"disk_images", filesJson(report->diskImages)},
                            {"apps", groupsJson(report->apps, true)},
                            {"browsers", groupsJson(report->browsers, true)},
                            {"orphans", groupsJson(report->orphans, false)},
                            {"total", total},
                            {"stopped", stopped}};
      std::puts(out.dump().c_str());
    } else {
      printFiles("System caches", report->caches);
      printFiles("Logs", report->logs);
      printFiles("Trash", report->trash);
      printFiles("Disk images", report->diskImages);
      printGroups("Applications", report->apps);
      printGroups("Browsers", report->browsers);
      printGroups("Orphans (no installed application owns them)", report->orphans);
      std::printf("%s of junk in all%s\n", platform::formatByteCount(total).c_str(),
                  stopped ? " (scan stopped: only what was found before the stop)" : "");
    }
    if (stopped) throw CommandError{kFailure, "stopped"};
  });
}

}  // namespace cli
