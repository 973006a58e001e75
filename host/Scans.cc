#include "host/Scans.h"

#include <fmt/format.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <mutex>

#include "Core/AppFileFinder.h"
#include "Core/JunkFileFinder.h"
#include "Core/LargeFileFinder.h"
#include "Core/RuleManager.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/Metadata.h"

namespace host {

namespace {

// The document `json` written as one piece.
void writeWhole(const nlohmann::json& json, const std::function<void(std::string_view)>& write) {
  write(json.dump() + "\n");
}

}  // namespace

// ---- The largest files

class LargeScan::Delegate final : public Core::LargeFileFinderDelegate {
 public:
  explicit Delegate(LargeScan* scan) : scan_(scan) {}
  void largeFileFinderCurrentURL(const std::string& url) override {
    if (scan_) scan_->showCurrent(url);
  }
  void largeFileFinderFound(const std::vector<Core::File>& found) override {
    if (scan_) scan_->found(found);
  }
  void forget() { scan_ = nullptr; }

 private:
  LargeScan* scan_;
};

LargeScan::LargeScan(const std::string& folder, std::int64_t minSize, std::size_t count, bool tree)
    : minSize_(minSize), count_(count), wantTree_(tree) {
  if (folder.empty()) {
    scope_ = platform::currentLocations().home;
    return;
  }
  auto status = platform::fileStatus(folder, platform::Follow::yes);
  if (!status.ok()) {
    throw CommandError{kUsage,
                       fmt::format("{}: {}", displayText(folder), status.error().message())};
  }
  if (status->type != platform::FileType::directory) {
    throw CommandError{kUsage, fmt::format("{}: not a folder", displayText(folder))};
  }
  char resolved[PATH_MAX];
  scope_ = ::realpath(folder.c_str(), resolved) != nullptr ? std::string(resolved) : folder;
}

LargeScan::~LargeScan() {
  *alive_ = false;
  stopWalk_->store(true);
  if (delegate_) delegate_->forget();
  if (finder_ && !finished()) finder_->stop();
}

void LargeScan::run() {
  auto query = platform::makeMetadataQuery();
  index_ = query.get();
  finder_ = std::make_unique<Core::LargeFileFinder>(std::move(query));
  delegate_ = std::make_shared<Delegate>(this);
  finder_->delegate = delegate_;
  finder_->searchScopes = {scope_};
  finder_->start(minSize_);
}

void LargeScan::found(std::vector<Core::File> files) {
  files_ = std::move(files);
  if (count_ > 0 && files_.size() > count_) files_.resize(count_);
  for (const auto& e : index_->errors()) errors_.push_back({e.path, e.code});
  if (wantTree_ && !stopped_) {
    measure();
  } else {
    settle();
  }
}

// One walk off the main queue; the tree comes back to it. Folders and files under a thousandth
// of a percent of the whole, or under 64 KiB, are summed into their folder's smaller items.
void LargeScan::measure() {
  measuring_ = true;
  showCurrent("measuring " + scope_);
  std::int64_t total = 0;
  for (const auto& f : files_) total += f.size;
  const std::int64_t keep = std::max<std::int64_t>(64 << 10, total / 100000);
  platform::DispatchQueue::global(platform::QoS::utility)
      .async([scope = scope_, keep, stop = stopWalk_, alive = alive_, this] {
        auto errors = std::make_shared<std::vector<ReadError>>();
        auto tree =
            std::make_shared<SpaceNode>(measureSpace(scope, keep, stop.get(), errors.get()));
        platform::DispatchQueue::main().async([tree, errors, alive, this] {
          if (!*alive) return;
          tree_ = std::move(*tree);
          errors_.insert(errors_.end(), errors->begin(), errors->end());
          settle();
        });
      });
}

void LargeScan::stop() {
  if (!finder_ || finished() || stopped_) return;
  stopped_ = true;
  stopWalk_->store(true);
  if (measuring_) return;  // the walk ends within one entry, and settles
  finder_->stop();
  // What the index had gathered before the stop, largest first.
  std::vector<Core::File> files;
  for (const auto& item : index_->results()) {
    if (item.path && item.size) files.push_back(Core::File{*item.path, *item.size});
  }
  std::stable_sort(files.begin(), files.end(),
                   [](const auto& a, const auto& b) { return a.size > b.size; });
  found(std::move(files));
}

void LargeScan::writeJson(const std::function<void(std::string_view)>& write) const {
  std::string out = "{\"files\":[";
  for (std::size_t i = 0; i < files_.size(); ++i) {
    const auto& f = files_[i];
    out += (i == 0 ? "{\"path\":" : ",{\"path\":") + jsonText(f.url).dump() +
           ",\"size\":" + std::to_string(f.size) + "}";
  }
  out += "],\"complete\":" + std::string(stopped_ || !errors_.empty() ? "false" : "true");
  out += ",\"stopped\":" + std::string(stopped_ ? "true" : "false");
  out += ",\"errors\":" + errorsJson(errors_).dump();
  if (tree_) out += ",\"tree\":" + spaceJson(*tree_).dump();
  out += "}\n";
  write(out);
}

std::vector<std::string> LargeScan::reportedPaths() const {
  std::vector<std::string> out;
  for (const auto& f : files_) out.push_back(f.url);
  return out;
}

// ---- Junk

const std::vector<std::string>& junkCategories() {
  static const std::vector<std::string> categories = {"caches", "logs",     "trash",  "disk_images",
                                                      "apps",   "browsers", "orphans"};
  return categories;
}

// The three system categories arrive on the scan's queue, the rest on the main queue.
class JunkScan::Delegate final : public Core::JunkFileFinderDelegate {
 public:
  explicit Delegate(JunkScan* scan) : scan_(scan) {}
  void junkFileFinderCurrentURL(const std::string& url) override {
    if (scan_) scan_->showCurrent(url);
  }
  void junkFileFinderProgress(double fraction) override {
    if (scan_) scan_->show(fraction, scan_->current());
  }
  void junkFileFinderFoundSystemCache(const Core::File& file) override {
    add(&JunkScan::caches, file);
  }
  void junkFileFinderFoundLog(const Core::File& file) override { add(&JunkScan::logs, file); }
  void junkFileFinderFoundTrashItem(const Core::File& file) override {
    add(&JunkScan::trash, file);
  }
  void junkFileFinderDidFinishSystemFiles() override {}
  void junkFileFinderFoundDiskImages(const std::vector<Core::File>& files) override {
    if (scan_) scan_->diskImages = files;
  }
  void junkFileFinderFoundAppJunk(const Core::MacAppJunkFile& junk) override {
    if (scan_) scan_->apps.push_back(Group{junk.bundleID.origin(), junk.appURL, junk.files});
  }
  void junkFileFinderFoundOrphanJunk(const Core::AppJunkFile& junk) override {
    if (scan_) scan_->orphans.push_back(Group{junk.id.origin(), "", junk.files});
  }
  void junkFileFinderFoundBrowserJunk(const Core::MacAppJunkFile& junk) override {
    if (scan_ && !junk.files.empty()) {
      scan_->browsers.push_back(Group{junk.bundleID.origin(), junk.appURL, junk.files});
    }
  }
  void junkFileFinderDidFinish() override {
    if (scan_) scan_->settle();
  }
  void forget() {
    std::lock_guard lock(mutex_);
    scan_ = nullptr;
  }

 private:
  void add(std::vector<Core::File> JunkScan::*list, const Core::File& file) {
    std::lock_guard lock(mutex_);
    if (scan_) (scan_->*list).push_back(file);
  }
  std::mutex mutex_;
  JunkScan* scan_;
};

JunkScan::JunkScan() {
  if (Core::RuleManager::shared() == nullptr) {
    throw CommandError{kFailure, Core::RuleManager::sharedLoadError()};
  }
}

JunkScan::~JunkScan() {
  if (delegate_) delegate_->forget();
  if (finder_ && !finished()) finder_->stop();
}

void JunkScan::run() {
  finder_ = Core::JunkFileFinder::create();
  delegate_ = std::make_shared<Delegate>(this);
  finder_->delegate = delegate_;
  finder_->start();
}

// Each stage ends at its next step; the application stage, once it starts, too. The finder
// reports its end as it does without a stop.
void JunkScan::stop() {
  if (!finder_ || finished()) return;
  stopped_ = true;
  finder_->stop();
}

namespace {

nlohmann::json filesJson(const std::vector<Core::File>& files) {
  nlohmann::json out = nlohmann::json::array();
  for (const auto& f : files) out.push_back({{"path", jsonText(f.url)}, {"size", f.size}});
  return out;
}

nlohmann::json groupsJson(const std::vector<JunkScan::Group>& groups, bool withURL) {
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

// A trashed item's description in the trash's "info" folder, which goes with it.
std::optional<std::string> trashInfoOf(const std::string& item) {
  std::string files = platform::deletingLastPathComponent(item);
  if (platform::lastPathComponent(files) != "files") return std::nullopt;
  std::string info = platform::joinPath(platform::deletingLastPathComponent(files), "info");
  std::string path = platform::joinPath(info, platform::lastPathComponent(item) + ".trashinfo");
  if (!platform::fileExists(path)) return std::nullopt;
  return path;
}

}  // namespace

std::int64_t totalSize(const std::vector<Core::File>& files) {
  std::int64_t total = 0;
  for (const auto& f : files) total += f.size;
  return total;
}

std::int64_t totalSize(const std::vector<JunkScan::Group>& groups) {
  std::int64_t total = 0;
  for (const auto& g : groups) {
    for (const auto& f : g.files) total += f.size;
  }
  return total;
}

std::int64_t JunkScan::total() const {
  return totalSize(caches) + totalSize(logs) + totalSize(trash) + totalSize(diskImages) +
         totalSize(apps) + totalSize(browsers) + totalSize(orphans);
}

void JunkScan::writeJson(const std::function<void(std::string_view)>& write) const {
  writeWhole({{"caches", filesJson(caches)},
              {"logs", filesJson(logs)},
              {"trash", filesJson(trash)},
              {"disk_images", filesJson(diskImages)},
              {"apps", groupsJson(apps, true)},
              {"browsers", groupsJson(browsers, true)},
              {"orphans", groupsJson(orphans, false)},
              {"total", total()},
              {"stopped", stopped_}},
             write);
}

std::vector<std::string> JunkScan::paths(const std::set<std::string>& chosen) const {
  std::vector<std::string> out;
  std::set<std::string> seen;
  auto take = [&](const std::string& path) {
    if (seen.insert(path).second) out.push_back(path);
  };
  for (const auto& [name, files] :
       {std::pair{"caches", &caches}, std::pair{"logs", &logs}, std::pair{"trash", &trash},
        std::pair{"disk_images", &diskImages}}) {
    if (!chosen.count(name)) continue;
    for (const auto& f : *files) take(f.url);
  }
  for (const auto& [name, groups] : {std::pair{"apps", &apps}, std::pair{"browsers", &browsers},
                                     std::pair{"orphans", &orphans}}) {
    if (!chosen.count(name)) continue;
    for (const auto& group : *groups) {
      for (const auto& f : group.files) take(f.url);
    }
  }
  return out;
}

std::vector<std::string> JunkScan::reportedPaths() const {
  return paths({junkCategories().begin(), junkCategories().end()});
}

DeletionRequest JunkScan::deletion(const std::set<std::string>& chosen) const {
  DeletionRequest request;
  std::set<std::string> trashItems;
  for (const auto& f : trash) trashItems.insert(f.url);
  for (const auto& f : logs) request.quiet.insert(f.url);
  for (const auto& path : reportedPaths()) {
    if (!chosen.count(path)) continue;
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
  return request;
}

// ---- Applications and leftovers

class AppFilesScan::Delegate final : public Core::AppFileFinderDelegate {
 public:
  explicit Delegate(AppFilesScan* scan) : scan_(scan) {}
  void appFileFinderFoundApp(const Core::CaseInsensitiveString& id, const std::string&) override {
    found_.insert(id.origin());
    if (scan_) scan_->showCurrent(fmt::format("found {} applications", found_.size()));
  }
  void appFileFinderDidFindApps() override {
    didFindApps_ = true;
    measured();
  }
  void appFileFinderFound(const Core::CaseInsensitiveString& id,
                          const Core::AppFileSet& set) override {
    if (!scan_) return;
    scan_->report_.installed[id.origin()] = gathered(set.apps, set.files);
    measured();
  }
  void appFileFinderLeftovers(const Core::CaseInsensitiveString& id,
                              const std::vector<Core::AppFile>& files) override {
    if (scan_) scan_->report_.leftovers[id.origin()] = gathered({}, files);
  }
  void appFileFinderDidFinishLeftovers() override {
    if (scan_) scan_->settle();
  }
  void forget() { scan_ = nullptr; }

 private:
  // Once every application found is measured, the scan is done, or its leftovers start.
  void measured() {
    if (!scan_ || !didFindApps_) return;
    const std::size_t done = scan_->report_.installed.size();
    scan_->show(found_.empty() ? 1.0 : 0.9 * done / found_.size(),
                fmt::format("measured {} of {} applications", done, found_.size()));
    if (done < found_.size() || leftoversAsked_) return;
    if (scan_->leftovers_ && !scan_->stopped()) {
      leftoversAsked_ = true;
      scan_->showCurrent("looking for what removed applications left");
      scan_->finder_->scanLeftovers();
    } else {
      scan_->settle();
    }
  }
  static AppFiles gathered(std::vector<Core::File> apps, std::vector<Core::AppFile> files) {
    AppFiles out;
    out.apps = std::move(apps);
    out.files = std::move(files);
    std::sort(out.files.begin(), out.files.end(),
              [](const auto& a, const auto& b) { return a.url < b.url; });
    for (const auto& file : out.files) out.size += file.size;
    return out;
  }

  AppFilesScan* scan_;
  std::set<std::string> found_;
  bool didFindApps_ = false, leftoversAsked_ = false;
};

AppFilesScan::AppFilesScan(bool files, bool leftovers) : files_(files), leftovers_(leftovers) {
  if (Core::RuleManager::shared() == nullptr) {
    throw CommandError{kFailure, Core::RuleManager::sharedLoadError()};
  }
}

AppFilesScan::~AppFilesScan() {
  if (delegate_) delegate_->forget();
}

void AppFilesScan::run() {
  if (!files_ && !leftovers_) {
    settle();
    return;
  }
  finder_ = Core::AppFileFinder::create();
  delegate_ = std::make_shared<Delegate>(this);
  finder_->delegate = delegate_;
  finder_->scan();
}

void AppFilesScan::stop() {
  if (finished()) return;
  stopped_ = true;
  if (delegate_) delegate_->forget();
  report_ = {};
  settle();
}

nlohmann::json AppFilesScan::appsJson(const std::set<Core::CaseInsensitiveString>& only,
                                      std::set<Core::CaseInsensitiveString>* seen) const {
  nlohmann::json apps = nlohmann::json::array();
  for (const auto& app : installedApps(report_, only)) {
    if (seen) seen->insert(app.id);
    nlohmann::json names = nlohmann::json::array(), nested = nlohmann::json::array();
    for (const auto& n : app.names) names.push_back(jsonText(n));
    for (const auto& n : app.nested) nested.push_back(jsonText(n));
    apps.push_back({{"id", jsonText(app.id.origin())},
                    {"names", names},
                    {"url", jsonText(app.url)},
                    {"organization", app.organization ? nlohmann::json(jsonText(*app.organization))
                                                      : nlohmann::json(nullptr)},
                    {"nested", nested},
                    {"icon", app.icon.empty() ? nlohmann::json(nullptr)
                                              : nlohmann::json(jsonText(app.icon))}});
    if (files_) {
      nlohmann::json list = nlohmann::json::array();
      if (app.files) {
        for (const auto& file : app.files->files) list.push_back(fileJson(file, true));
      }
      apps.back()["files"] = list;
      apps.back()["size"] = app.files ? app.files->size : 0;
      apps.back()["appSize"] = app.appSize;
    }
  }
  return {{"apps", apps}};
}

nlohmann::json AppFilesScan::leftoversJson(
    const std::set<Core::CaseInsensitiveString>& only) const {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& [id, files] : report_.leftovers) {
    if (files.files.empty()) continue;  // nothing was left
    if (!only.empty() && !only.count(Core::CaseInsensitiveString(id))) continue;
    nlohmann::json entries = nlohmann::json::array();
    for (const auto& file : files.files) entries.push_back(fileJson(file, false));
    list.push_back({{"id", jsonText(id)}, {"files", entries}, {"size", files.size}});
  }
  return {{"leftovers", list}};
}

void AppFilesScan::writeJson(const std::function<void(std::string_view)>& write) const {
  writeWhole(leftovers_ ? leftoversJson({}) : appsJson({}), write);
}

std::vector<std::string> AppFilesScan::reportedPaths() const {
  std::vector<std::string> out;
  for (const auto& [id, files] : leftovers_ ? report_.leftovers : report_.installed) {
    for (const auto& file : files.files) out.push_back(file.url);
  }
  return out;
}

DeletionRequest AppFilesScan::deletion(const std::set<std::string>& chosen) const {
  if (leftovers_) return ScanJob::deletion(chosen);
  std::vector<std::string> paths;
  std::vector<std::pair<std::string, std::string>> live;
  for (const auto& [id, files] : report_.installed) {
    for (const auto& file : files.files) {
      if (!chosen.count(file.url)) continue;
      const std::string kind = kindText(file.kind);
      if (kind == "cache" || kind == "log") {
        paths.push_back(file.url);
      } else {
        live.emplace_back(file.url,
                          "the " + kind + " of " + displayText(id) +
                              ", which is installed: it stays while the application does");
      }
    }
  }
  DeletionRequest request = plainDeletion(paths);
  request.leftAlone.insert(request.leftAlone.end(), live.begin(), live.end());
  return request;
}

}  // namespace host
