#include "launch/LaunchItem.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <unordered_set>

#include "launch/ItemsStatusManager.h"
#include "platform/Applications.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Launchd.h"
#include "platform/Locations.h"
#include "platform/LoginItems.h"

namespace launch {

namespace {

std::function<std::vector<std::string>()>& applicationList() {
  static auto* urls =
      new std::function<std::vector<std::string>()>([] { return Core::applicationURLs(); });
  return *urls;
}

std::shared_ptr<Core::AppBundle> bundleAt(const std::string& url) {
  static const Core::AppBundleLoader loader;
  return std::shared_ptr<Core::AppBundle>(loader.bundle(url));
}

bool isPropertyList(const std::string& url) { return url.ends_with(".plist"); }

// The label of the service manager's table that an item is known by, and its domain.
struct Managed {
  std::optional<std::string> label;
  platform::launchd::Domain domain;
};

std::optional<Managed> managed(const LaunchItem& item) {
  using platform::launchd::Domain;
  if (std::holds_alternative<UserAgent>(item.itemType)) {
    return Managed{item.getPlistItemLabel(), Domain::user};
  }
  if (std::holds_alternative<GlobalAgent>(item.itemType)) {
    return Managed{item.getPlistItemLabel(), Domain::global};
  }
  if (std::holds_alternative<GlobalDaemon>(item.itemType)) {
    return Managed{item.getPlistItemLabel(), Domain::system};
  }
  const auto& info = std::get<AppLoginItem>(item.itemType).itemInfo;
  if (!info.loginItemBundle) return std::nullopt;
  const std::string& id = info.loginItemBundle->bundleID.origin();
  return Managed{id.empty() ? std::nullopt : std::optional<std::string>(id), Domain::user};
}

// The program and arguments a desktop entry's Exec line holds, as written.
std::optional<std::string> execLine(const std::string& path) {
  auto content = platform::readDesktopEntry(path);
  if (!content) return std::nullopt;
  std::size_t at = content->find("\nExec=");
  if (at == std::string::npos) return std::nullopt;
  std::size_t end = content->find('\n', at + 1);
  return content->substr(at + 6, end == std::string::npos ? std::string::npos : end - at - 6);
}

class LaunchdManagedItemsFinder final : public LaunchItemsFinder {
 public:
  void start() override;

 private:
  using UnitNames = std::array<std::vector<std::string>, 3>;
  static std::vector<LaunchItem> launchdItems(const UnitNames& names);
  static std::vector<LaunchItem> helperItems(std::vector<LaunchItem> listed);
};

bool isUnitFileName(const std::string& name) {
  static const std::array<const char*, 11> kTypes = {".service", ".socket", ".timer",     ".path",
                                                     ".target",  ".mount",  ".automount", ".swap",
                                                     ".slice",   ".scope",  ".plist"};
  return std::any_of(kTypes.begin(), kTypes.end(),
                     [&](const char* type) { return name.ends_with(type); });
}

std::vector<LaunchItem> LaunchdManagedItemsFinder::launchdItems(const UnitNames& names) {
  using platform::launchd::Domain;
  const platform::Locations& locations = platform::currentLocations();
  std::vector<LaunchItem> items;
  for (Domain domain : {Domain::global, Domain::system, Domain::user}) {
    // What systemctl lists for the domain, and what the folders hold beside it (a unit whose
    // file it can't read, the user's units where no manager answers).
    std::vector<std::string> all = names[static_cast<std::size_t>(domain)];
    std::unordered_set<std::string> seen(all.begin(), all.end());
    for (const auto& folder : platform::launchd::unitFolders(locations, domain)) {
      for (const auto& name : platform::launchd::listedUnits(folder)) {
        if (isUnitFileName(name) && seen.insert(name).second) all.push_back(name);
      }
    }
    for (const auto& name : all) {
      if (name.find(kProductIdentifier) != std::string::npos) continue;
      // The unit's file; an instance is named after itself beside its template's file, and a
      // unit with no file (generated, transient) by its name alone.
      std::string url = name;
      if (auto path = platform::launchd::unitFilePath(locations, domain, name)) {
        url = platform::lastPathComponent(*path) == name
                  ? *path
                  : platform::joinPath(platform::deletingLastPathComponent(*path), name);
      } else if (domain == Domain::user) {
        continue;  // the user's manager lists every user's units too: they are global agents
      }
      switch (domain) {
        case Domain::user:
          items.emplace_back(url, UserAgent{});
          break;
        case Domain::global:
          items.emplace_back(url, GlobalAgent{});
          break;
        case Domain::system:
          items.emplace_back(url, GlobalDaemon{});
          break;
      }
    }
  }
  return items;
}

std::vector<LaunchItem> LaunchdManagedItemsFinder::helperItems(std::vector<LaunchItem> listed) {
  std::vector<LaunchItem> helpers;
  for (const auto& url : applicationList()()) {
    // Applications of the macOS layout carry their helpers in Contents/Library/LoginItems;
    // Linux applications have none.
    auto app = bundleAt(url);
    if (!app) continue;
    std::string folder = platform::joinPath(url, "Contents/Library/LoginItems");
    auto listing = platform::listDirectoryConfined(folder);
    if (!listing.ok()) continue;
    for (const auto& entry : *listing) {
      std::string path = platform::joinPath(folder, entry.name);
      auto helper = bundleAt(path);
      if (!helper) continue;
      helpers.emplace_back(path, AppLoginItem{AppLoginItemInfo{app, helper}});
    }
  }
  helpers.insert(helpers.end(), listed.begin(), listed.end());
  std::unordered_set<LaunchItem> unique(helpers.begin(), helpers.end());
  std::vector<LaunchItem> out;
  for (const auto& item : unique) {
    if (item.bundleId().find(kProductIdentifier) == std::string::npos) out.push_back(item);
  }
  return out;
}

void LaunchdManagedItemsFinder::start() {
  auto first = std::make_shared<std::vector<LaunchItem>>();
  auto second = std::make_shared<std::vector<LaunchItem>>();
  platform::DispatchGroup group;
  auto global = platform::DispatchQueue::global(platform::QoS::unspecified);
  // The units each domain's manager lists, read here: the status manager belongs to this thread.
  UnitNames names;
  for (auto domain : {platform::launchd::Domain::user, platform::launchd::Domain::global,
                      platform::launchd::Domain::system}) {
    for (const auto& unit : ItemsStatusManager::shared().unitsIn(domain)) {
      names[static_cast<std::size_t>(domain)].push_back(unit.name);
    }
  }
  global.async(group, [first, names = std::move(names)] { *first = launchdItems(names); });
  // The login-item list is read on the caller's thread, the helpers looked for on a global queue.
  std::vector<LaunchItem> listed;
  // The entries a user switched off over the system's are items too, or they could never be
  // switched on again.
  auto entries = platform::login_items::loginItemSnapshot(platform::currentLocations());
  for (auto& entry : platform::login_items::switchedOffEntries(platform::currentLocations())) {
    entries.push_back(std::move(entry));
  }
  for (const auto& entry : entries) {
    if (!entry.url) continue;
    auto bundle = bundleAt(*entry.url);
    if (!bundle) continue;
    listed.emplace_back(*entry.url, AppLoginItem{AppLoginItemInfo{bundle, nullptr}});
  }
  global.async(group, [second, listed = std::move(listed)] { *second = helperItems(listed); });
  std::weak_ptr<LaunchItemsFinderDelegate> receiver = delegate;
  group.notify(platform::DispatchQueue::main(), [receiver, first, second] {
    auto live = receiver.lock();
    if (!live) return;
    std::vector<LaunchItem> all = *first;
    all.insert(all.end(), second->begin(), second->end());
    live->launchItemsFinderDidFind(all);
  });
}

}  // namespace

namespace detail {
void setApplicationURLs(std::function<std::vector<std::string>()> urls) {
  applicationList() =
      urls ? std::move(urls)
           : std::function<std::vector<std::string>()>([] { return Core::applicationURLs(); });
}
}  // namespace detail

LaunchItem::LaunchItem(std::string url, LaunchItemType itemType)
    : url(std::move(url)), itemType(std::move(itemType)) {
  if (auto bundle = bundleAt(this->url)) bundleId_ = bundle->bundleID.origin();
}

std::optional<platform::plist::Value> readPlistContent(const std::string& path) {
  if (path.empty()) return std::nullopt;
  auto value = platform::plist::readFile(path);
  if (!value || value->dictionary() == nullptr) return std::nullopt;
  return value;
}

std::optional<std::string> LaunchItem::getPlistItemLabel() const {
  if (!isPropertyList(url)) {
    // A unit is known to systemd by its file name.
    std::string name = platform::lastPathComponent(url);
    return name.empty() ? std::nullopt : std::optional<std::string>(name);
  }
  auto content = readPlistContent(url);
  if (!content) return std::nullopt;
  const auto* label = content->find("Label");
  if (label == nullptr || label->string() == nullptr) return std::nullopt;
  return *label->string();
}

std::optional<std::string> LaunchItem::runs() const {
  if (const auto* login = std::get_if<AppLoginItem>(&itemType)) {
    const auto& bundle = login->itemInfo.loginItemBundle ? login->itemInfo.loginItemBundle
                                                         : login->itemInfo.appBundle;
    return bundle ? execLine(bundle->url) : std::nullopt;
  }
  if (!isPropertyList(url)) return platform::launchd::unitCommand(url);
  auto content = readPlistContent(url);
  if (!content) return std::nullopt;
  if (const auto* arguments = content->find("ProgramArguments"); arguments && arguments->array()) {
    std::string line;
    for (const auto& argument : *arguments->array()) {
      if (argument.string() == nullptr) continue;
      line += (line.empty() ? "" : " ") + *argument.string();
    }
    if (!line.empty()) return line;
  }
  const auto* program = content->find("Program");
  return program && program->string() ? std::optional<std::string>(*program->string())
                                      : std::nullopt;
}

std::optional<platform::launchd::Domain> LaunchItem::domain() const {
  if (std::holds_alternative<AppLoginItem>(itemType)) return std::nullopt;
  auto service = managed(*this);
  return service ? std::optional(service->domain) : std::nullopt;
}

std::string LaunchItem::state() const {
  auto unitDomain = domain();
  auto label = getPlistItemLabel();
  if (!unitDomain || !label) return isAutoStartEnabled() ? "enabled" : "disabled";
  return ItemsStatusManager::shared().stateIn(*unitDomain, *label).value_or("unknown");
}

bool LaunchItem::isAutoStartEnabled() const {
  auto service = managed(*this);
  if (!service) {
    const auto& info = std::get<AppLoginItem>(itemType).itemInfo;
    return info.appBundle &&
           platform::login_items::isInLoginItems(platform::currentLocations(), info.appBundle->url);
  }
  if (!service->label) return false;
  const auto& table = ItemsStatusManager::shared().disabledItemsIn(service->domain);
  auto found = table.find(*service->label);
  return found != table.end() && !found->second;
}

bool LaunchItem::setAutoStartEnabled(bool enabled) {
  auto service = managed(*this);
  if (!service) {
    const auto& info = std::get<AppLoginItem>(itemType).itemInfo;
    if (!info.appBundle) return false;
    const auto& locations = platform::currentLocations();
    return enabled ? platform::login_items::addLoginItem(locations, info.appBundle->url)
                   : platform::login_items::removeLoginItem(locations, info.appBundle->url);
  }
  auto& manager = ItemsStatusManager::shared();
  if (service->label) {
    const auto& table = manager.disabledItemsIn(service->domain);
    auto found = table.find(*service->label);
    if (found != table.end() && found->second != enabled) return false;  // so already
    if (found == table.end() && !enabled) return false;                  // counts as off already
  } else if (!enabled) {
    return false;
  }
  if (!service->label) return false;
  return manager.change(enabled, *service->label, service->domain);
}

std::unique_ptr<LaunchItemsFinder> makeLaunchItemsFinder(
    std::weak_ptr<LaunchItemsFinderDelegate> delegate) {
  auto finder = std::make_unique<LaunchdManagedItemsFinder>();
  finder->delegate = std::move(delegate);
  return finder;
}

}  // namespace launch
