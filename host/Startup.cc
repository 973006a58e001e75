#include "host/Startup.h"

#include <fmt/format.h>
#include <unistd.h>

#include <set>
#include <unordered_map>

#include "launch/ItemsStatusManager.h"
#include "platform/Files.h"
#include "platform/Launchd.h"
#include "platform/Locations.h"
#include "platform/Packages.h"
#include "platform/Process.h"

namespace host {

std::string typeText(const launch::LaunchItemType& type) {
  if (std::holds_alternative<launch::AppLoginItem>(type)) return "login-item";
  if (std::holds_alternative<launch::UserAgent>(type)) return "user-agent";
  if (std::holds_alternative<launch::GlobalAgent>(type)) return "global-agent";
  return "daemon";
}

std::optional<std::string> labelOf(const launch::LaunchItem& item) {
  if (std::holds_alternative<launch::AppLoginItem>(item.itemType)) {
    if (item.bundleId().empty()) return std::nullopt;
    return item.bundleId();
  }
  return item.getPlistItemLabel();
}

const char* domainText(const launch::LaunchItem& item) {
  auto domain = item.domain();
  if (!domain) return "login";
  switch (*domain) {
    case platform::launchd::Domain::user:
      return "user";
    case platform::launchd::Domain::global:
      return "global";
    case platform::launchd::Domain::system:
      break;
  }
  return "system";
}

bool isProtected(const launch::LaunchItem& item) {
  auto label = item.getPlistItemLabel();
  return item.domain() && label && platform::launchd::isProtectedUnit(*label);
}

// Static, masked, generated, indirect units and aliases are listed with --all.
bool isSwitchable(const launch::LaunchItem& item) {
  if (!item.domain()) return true;
  static const std::set<std::string> kSwitchable = {"enabled", "enabled-runtime", "disabled",
                                                    "linked",  "linked-runtime",  "unknown"};
  return kSwitchable.count(item.state()) > 0;
}

Origin Origins::of(const launch::LaunchItem& item) {
  if (!platform::fileExists(item.url, platform::Follow::no)) {
    // An instance has its template's origin; a unit with no file was generated.
    auto label = item.getPlistItemLabel();
    auto pattern = label ? platform::launchd::templateOf(*label) : std::nullopt;
    if (!pattern) return {"generated", ""};
    return of(platform::joinPath(platform::deletingLastPathComponent(item.url), *pattern));
  }
  return of(item.url);
}
Origin Origins::of(const std::string& path) {
  const auto& locations = platform::currentLocations();
  std::string system = path;
  if (!locations.root.empty() && locations.root != "/" && path.starts_with(locations.root)) {
    system = path.substr(locations.root.size());
  }
  if (!files_) {
    files_ = platform::packageFiles(locations.packages, [](std::string_view file) {
      return file.find("/systemd/") != std::string_view::npos ||
             file.find("/autostart/") != std::string_view::npos;
    });
  }
  if (auto package = platform::packageOf(*files_, system); !package.empty()) {
    return {"package", package};
  }
  for (const auto* folders : {&locations.userUnitFolders}) {
    for (const auto& folder : *folders) {
      if (path.starts_with(folder + "/")) return {"user", ""};
    }
  }
  if (!locations.autostart.empty() && path.starts_with(locations.autostart.front() + "/")) {
    return {"user", ""};
  }
  if (path.starts_with(locations.home + "/")) return {"user", ""};
  return {"administrator", ""};
}

class StartupScan::Delegate final : public launch::LaunchItemsFinderDelegate {
 public:
  explicit Delegate(StartupScan* scan) : scan_(scan) {}
  void launchItemsFinderDidFind(const std::vector<launch::LaunchItem>& found) override {
    if (!scan_) return;
    auto& items = scan_->items_;
    items = found;
    std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
      auto rank = [](const launch::LaunchItem& item) { return item.itemType.index(); };
      if (rank(a) != rank(b)) return rank(a) > rank(b);
      return labelOf(a).value_or(a.url) < labelOf(b).value_or(b.url);
    });
    scan_->settle();
  }
  void forget() { scan_ = nullptr; }

 private:
  StartupScan* scan_;
};

StartupScan::StartupScan(bool all) : all_(all) {}

StartupScan::~StartupScan() {
  if (delegate_) delegate_->forget();
}

void StartupScan::run() {
  delegate_ = std::make_shared<Delegate>(this);
  finder_ = launch::makeLaunchItemsFinder(delegate_);
  finder_->start();
}

void StartupScan::stop() {
  if (finished()) return;
  stopped_ = true;
  if (delegate_) delegate_->forget();
  settle();
}

void StartupScan::writeJson(const std::function<void(std::string_view)>& write) const {
  Origins origins;
  auto runner = platform::makeProcessRunner();
  nlohmann::json list = nlohmann::json::array();
  for (const auto& item : items_) {
    if (!all_ && !isSwitchable(item)) continue;
    auto label = labelOf(item);
    auto runs = item.runs();
    auto origin = origins.of(item);
    std::optional<std::string> next;
    if (item.domain() && label) {
      next = platform::launchd::nextElapse(*runner, platform::currentLocations(), *item.domain(),
                                           *label);
    }
    list.push_back(
        {{"type", typeText(item.itemType)},
         {"label", label ? nlohmann::json(jsonText(*label)) : nlohmann::json()},
         {"path", jsonText(item.url)},
         {"runs", runs ? nlohmann::json(jsonText(*runs)) : nlohmann::json()},
         {"enabled", item.isAutoStartEnabled()},
         {"domain", domainText(item)},
         {"state", item.state()},
         {"origin", origin.origin},
         {"package", origin.package.empty() ? nlohmann::json() : nlohmann::json(origin.package)},
         {"protected", isProtected(item)},
         {"next", next ? nlohmann::json(jsonText(*next)) : nlohmann::json()}});
  }
  write(nlohmann::json{{"items", list}}.dump() + "\n");
}

void switchStartupItem(std::vector<launch::LaunchItem>& items, const std::string& name, bool wanted,
                       Switched& switched) {
  if (name.empty()) throw CommandError{kUsage, "an empty name"};
  std::vector<launch::LaunchItem*> matches;
  const std::string asPath = name.find('/') != std::string::npos ? absolutePath(name) : name;
  for (auto& item : items) {
    if (labelOf(item) == name || item.url == asPath) matches.push_back(&item);
  }
  // An instance of a template that is listed (one switched off, or never switched on).
  std::optional<launch::LaunchItem> instance;
  if (auto pattern = platform::launchd::templateOf(name); matches.empty() && pattern) {
    for (auto& item : items) {
      if (item.domain() && labelOf(item) == *pattern) {
        instance.emplace(platform::joinPath(platform::deletingLastPathComponent(item.url), name),
                         item.itemType);
        matches.push_back(&*instance);
        break;
      }
    }
  }
  if (matches.empty()) {
    throw CommandError{kUsage, fmt::format("{}: no such startup item", displayText(name))};
  }
  if (matches.size() > 1) {
    throw CommandError{kUsage, fmt::format("{}: {} items have this name; give the path",
                                           displayText(name), matches.size())};
  }
  launch::LaunchItem& item = *matches.front();
  if (isProtected(item)) {
    throw CommandError{kFailure, fmt::format("{}: a unit the system needs; not switched from here",
                                             displayText(name))};
  }
  item.setAutoStartEnabled(wanted);
  switched.name = labelOf(item).value_or(item.url);
  switched.enabled = item.isAutoStartEnabled();
  switched.state = item.state();
  if (switched.enabled != wanted) {
    bool system = std::holds_alternative<launch::GlobalAgent>(item.itemType) ||
                  std::holds_alternative<launch::GlobalDaemon>(item.itemType);
    throw CommandError{kFailure, system && ::geteuid() != 0
                                     ? "not changed: a system unit needs root or the "
                                       "privileged helper (ravelin helper install)"
                                     : "not changed"};
  }
}

}  // namespace host
