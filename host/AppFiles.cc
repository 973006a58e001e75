#include "host/AppFiles.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <set>

#include "Core/AppBundle.h"
#include "Core/PublicSuffixList.h"
#include "Core/RuleManager.h"
#include "host/Host.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Locations.h"

namespace host {

std::vector<AppEntry> installedApps(const AppFilesReport& report,
                                    const std::set<Core::CaseInsensitiveString>& only) {
  const Core::RuleManager* rules = Core::RuleManager::shared();
  if (rules == nullptr) throw CommandError{kFailure, Core::RuleManager::sharedLoadError()};
  const Core::PublicSuffixList* suffixes = Core::PublicSuffixList::shared();
  if (suffixes == nullptr) throw CommandError{kFailure, Core::PublicSuffixList::sharedLoadError()};
  Core::AppBundleLoader loader;
  std::vector<AppEntry> out;
  for (const auto& url : Core::applicationURLs()) {
    auto bundle = loader.bundle(url);
    if (!bundle) continue;
    if (!only.empty() && !only.count(bundle->bundleID)) continue;
    AppEntry entry;
    entry.id = bundle->bundleID;
    entry.url = bundle->url;
    if (auto it = report.installed.find(bundle->bundleID.origin()); it != report.installed.end()) {
      entry.files = &it->second;
      for (const auto& own : it->second.apps) {
        if (own.url == bundle->url) entry.appSize = own.size;
      }
    }
    entry.icon = iconFile(bundle->icon);
    bundle->loadNestedBundles();
    for (const auto& n : bundle->bundleNames) entry.names.push_back(n.origin());
    for (const auto& n : bundle->bundleIDs) entry.nested.push_back(n.origin());
    if (auto fromRules = rules->extraInfo(bundle->bundleID.origin()).second) {
      entry.organization = fromRules->origin();
    } else {
      entry.organization = suffixes->organization(bundle->bundleID.origin());
    }
    out.push_back(std::move(entry));
  }
  return out;
}

std::string iconFile(const std::string& icon) {
  if (icon.empty() || icon.find('\0') != std::string::npos) return "";
  auto usable = [](const std::string& path) {
    return (path.ends_with(".png") || path.ends_with(".svg")) &&
           platform::fileStatus(path, platform::Follow::no).ok() &&
           platform::fileStatus(path, platform::Follow::no)->type == platform::FileType::regular;
  };
  const auto& locations = platform::currentLocations();
  if (icon.front() == '/') {
    std::string path = locations.root.empty() || locations.root == "/"
                           ? icon
                           : platform::underRootPath(locations.root, icon);
    return usable(path) ? path : "";
  }
  if (icon.find('/') != std::string::npos) return "";
  static const char* kSizes[] = {"48x48", "64x64", "128x128", "256x256", "32x32", "scalable"};
  for (const auto& applications : locations.applications) {
    const std::string share = platform::deletingLastPathComponent(applications);
    for (const char* size : kSizes) {
      for (const char* suffix : {".png", ".svg"}) {
        std::string path = share + "/icons/hicolor/" + size + "/apps/" + icon + suffix;
        if (usable(path)) return path;
      }
    }
    for (const char* suffix : {".png", ".svg"}) {
      std::string path = share + "/pixmaps/" + icon + suffix;
      if (usable(path)) return path;
    }
  }
  return "";
}

std::string kindText(const Core::AppFile::Kind& kind) { return Core::AppFile::textOfKind(kind); }

std::string ownerText(const Core::App& owner) {
  if (const auto* name = std::get_if<Core::AppName>(&owner)) return name->id.origin();
  const auto& id = std::get<Core::InstalledApp>(owner).id;
  if (const auto* bundle = std::get_if<Core::BundleID>(&id)) return "id:" + bundle->id.origin();
  if (const auto* name = std::get_if<Core::BundleName>(&id)) return "name:" + name->name.origin();
  return "organization:" + std::get<Core::Organization>(id).name.origin();
}

nlohmann::json fileJson(const Core::AppFile& file, bool owner) {
  nlohmann::json out = {
      {"path", jsonText(file.url)}, {"size", file.size}, {"kind", jsonText(kindText(file.kind))}};
  if (owner) out["owner"] = jsonText(ownerText(file.owner));
  return out;
}

}  // namespace host
