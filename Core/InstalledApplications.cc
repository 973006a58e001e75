#include "Core/InstalledApplications.h"

#include <string_view>
#include <utility>

#include "Core/AppBundle.h"
#include "platform/Applications.h"
#include "platform/Files.h"
#include "platform/Packages.h"
#include "platform/Text.h"

namespace Core {

namespace {

// dpkg's status file and file lists can be large on a full system, never this large.
constexpr std::size_t kMaxPackageFileBytes = 256u << 20;

// The packages dpkg's status file lists as present on the system: every state but
// "not-installed" and "config-files" (a removed package of which only configuration is left).
template <class Add>
void readPackageStatus(std::string_view status, Add add) {
  std::string package;
  bool installed = false;
  auto flush = [&] {
    if (!package.empty() && installed) add(package);
    package.clear();
    installed = false;
  };
  platform::forEachLine(status, [&](std::string_view line) {
    if (line.empty()) {
      flush();
    } else if (line.starts_with("Package:")) {
      package = std::string(line.substr(8));
      package.erase(0, package.find_first_not_of(" \t"));
      while (!package.empty() && (package.back() == ' ' || package.back() == '\r')) {
        package.pop_back();
      }
    } else if (line.starts_with("Status:")) {
      std::string_view state = line.substr(line.find_last_of(' ') + 1);
      installed = state != "not-installed" && state != "config-files";
    }
  });
  flush();
}

bool isCommandFolder(std::string_view folder) {
  auto name = folder.substr(folder.find_last_of('/') + 1);
  return name == "bin" || name == "sbin" || name == "games";
}

}  // namespace

InstalledApplications InstalledApplications::read(
    const platform::Locations& locations, const RuleManager* rules,
    const std::function<void(const MacApp&)>& eachApplication) {
  InstalledApplications installed;
  installed.rules_ = rules;
  installed.packages_ = locations.packages;

  // Desktop entries, shown or not, by every name each application answers to.
  AppBundleLoader loader;
  BundleGroups all;
  for (const auto& url : platform::installedApplicationURLs(locations)) {
    auto bundle = loader.bundle(url);
    if (bundle && !bundle->bundleID.origin().empty()) all.add(std::move(bundle));
  }
  for (auto& [id, bundles] : all.groups) {
    MacApp app = makeMacApp(bundles, rules);
    if (eachApplication) eachApplication(app);
    const std::string& where = app.urls.front();
    for (const auto& name : app.bundleIDs) installed.add(name, where);
    for (const auto& name : app.bundleNames) installed.add(name, where);
    // A snap's entries are NAME_APP: the snap goes by NAME, and by APP when it starts it.
    const std::string& text = id.origin();
    if (auto underscore = text.find('_');
        underscore != std::string::npos &&
        where.find("/snapd/desktop/applications/") != std::string::npos) {
      installed.add(CaseInsensitiveString(text.substr(0, underscore)), where);
      installed.add(CaseInsensitiveString(text.substr(underscore + 1)), where);
    }
  }

  // Snaps, with or without desktop entries.
  if (auto snaps = platform::listDirectory(locations.snapMounts); snaps.ok()) {
    for (const auto& entry : *snaps) {
      if (entry.isDirectory() && entry.name != "bin" && !entry.name.starts_with(".")) {
        std::string where = platform::joinPath(locations.snapMounts, entry.name);
        installed.add(CaseInsensitiveString(entry.name), where);
        installed.snaps_.try_emplace(CaseInsensitiveString(entry.name), where);
      }
    }
  }

  // Flatpaks, whether or not they export a desktop entry: by ID and by the ID's last part.
  for (const auto& id : platform::installedFlatpaks(locations)) {
    installed.add(CaseInsensitiveString(id), id);
    if (auto dot = id.rfind('.'); dot != std::string::npos && dot + 1 < id.size()) {
      installed.add(CaseInsensitiveString(id.substr(dot + 1)), id);
    }
  }

  // Packages, by name.
  if (auto status = platform::readRegularFile(platform::joinPath(locations.packages, "status"),
                                              kMaxPackageFileBytes, platform::Follow::no);
      status.ok()) {
    readPackageStatus(*status, [&](const std::string& package) {
      installed.add(CaseInsensitiveString(package),
                    platform::joinPath(locations.packages, "info/" + package + ".list"));
    });
  }

  // Commands, by name: a tool without a desktop entry is installed when its command is.
  for (const auto& folder : locations.commandFolders) {
    auto entries = platform::listDirectory(folder);
    if (!entries.ok()) continue;
    for (const auto& entry : *entries) {
      if (entry.type == platform::FileType::regular ||
          entry.type == platform::FileType::symbolicLink) {
        installed.add(CaseInsensitiveString(entry.name), platform::joinPath(folder, entry.name));
      }
    }
  }
  return installed;
}

void InstalledApplications::add(const CaseInsensitiveString& name, const std::string& where) {
  if (!name.origin().empty()) names_.try_emplace(name, where);
}

std::optional<std::string> InstalledApplications::find(const CaseInsensitiveString& name) const {
  if (auto found = names_.find(name); found != names_.end()) return found->second;
  // A snap's applications are SNAP_APP.
  if (auto underscore = name.origin().find('_'); underscore != std::string::npos) {
    auto snap = snaps_.find(CaseInsensitiveString(name.origin().substr(0, underscore)));
    if (snap != snaps_.end()) return snap->second;
  }
  readPackageCommands();
  if (auto found = packageCommands_.find(name); found != packageCommands_.end()) {
    return found->second;
  }
  return std::nullopt;
}

void InstalledApplications::readPackageCommands() const {
  if (packageCommandsRead_) return;
  packageCommandsRead_ = true;
  auto files = platform::packageFiles(packages_, [](std::string_view path) {
    std::size_t slash = path.find_last_of('/');
    return slash != std::string_view::npos && slash + 1 < path.size() &&
           isCommandFolder(path.substr(0, slash));
  });
  for (const auto& [path, package] : files) {
    packageCommands_.try_emplace(CaseInsensitiveString(platform::lastPathComponent(path)),
                                 platform::joinPath(packages_, "info/" + package + ".list"));
  }
}

std::optional<std::string> InstalledApplications::whereInstalled(
    const CaseInsensitiveString& name) const {
  if (auto found = find(name)) return found;
  if (rules_ == nullptr) return std::nullopt;
  for (const auto& other : rules_->extraInfo(name.origin()).first) {
    if (auto found = find(other)) return found;
  }
  return std::nullopt;
}

bool InstalledApplications::isInstalled(const CaseInsensitiveString& name) const {
  return whereInstalled(name).has_value();
}

}  // namespace Core
