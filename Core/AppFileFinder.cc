#include "Core/AppFileFinder.h"

#include <unordered_map>
#include <utility>

#include "Core/InstalledApplications.h"
#include "Core/PublicSuffixList.h"
#include "platform/Applications.h"
#include "platform/Files.h"
#include "platform/Locations.h"

namespace Core {

namespace {

std::shared_ptr<const AppFileRule> compile(const RuleManager* rules) {
  static const RuleManager kNoRules;
  return std::make_shared<AppFileRule>(true, rules != nullptr ? *rules : kNoRules);
}

// Whether `scan()` looks at the application of `url`: one found in an application folder, with
// no hidden folder between the two.
bool keptByScan(const std::string& url, const platform::Locations& locations) {
  for (const auto& folder : locations.applications) {
    if (!url.starts_with(folder + "/")) continue;
    return url.find("/.", folder.size()) == std::string::npos;
  }
  return false;
}

bool startsWithIgnoringCase(const std::string& text, std::string_view prefix) {
  return text.size() >= prefix.size() && CaseInsensitiveString(std::string_view(text).substr(
                                             0, prefix.size())) == CaseInsensitiveString(prefix);
}

// The size of an installed application: its install location, else the bundle folder.
std::int64_t applicationSize(const std::string& url) {
  if (auto location = platform::applicationInstallLocation(url, platform::currentLocations())) {
    return itemSize(*location);
  }
  return platform::isDirectory(url) ? directorySize(url) : 0;
}

std::optional<CaseInsensitiveString> organizationOf(const std::string& identifier) {
  const PublicSuffixList* suffixes = PublicSuffixList::shared();
  if (suffixes == nullptr) return std::nullopt;
  return CaseInsensitiveString::from(suffixes->organization(identifier));
}

}  // namespace

bool isSystemProtected(const std::string& url) { return platform::isOnReadOnlyMount(url); }

MacApp makeMacApp(std::vector<std::unique_ptr<AppBundle>>& bundles, const RuleManager* rules) {
  MacApp app;
  app.bundleID = bundles.front()->bundleID;
  std::vector<CaseInsensitiveString> ids;
  std::optional<CaseInsensitiveString> organization;
  if (rules != nullptr) std::tie(ids, organization) = rules->extraInfo(app.bundleID.origin());
  app.organization = organization ? organization : organizationOf(app.bundleID.origin());
  app.bundleIDs.insert(app.bundleID);
  app.bundleIDs.insert(ids.begin(), ids.end());
  for (auto& bundle : bundles) {
    bundle->loadNestedBundles();
    app.bundleIDs.insert(bundle->bundleIDs.begin(), bundle->bundleIDs.end());
    app.bundleNames.insert(bundle->bundleNames.begin(), bundle->bundleNames.end());
    app.urls.push_back(bundle->url);
  }
  return app;
}

void BundleGroups::add(std::unique_ptr<AppBundle> bundle) {
  CaseInsensitiveString id = bundle->bundleID;
  auto [found, inserted] = index.try_emplace(id, groups.size());
  if (inserted) groups.emplace_back(id, std::vector<std::unique_ptr<AppBundle>>{});
  groups[found->second].second.push_back(std::move(bundle));
}

std::vector<AppFileInfo> walkFor(FileFinder& finder, const std::string& bundleID,
                                 const OwnerOf& ownerOf) {
  const auto ids = finder.appFileRule().matcherIDs(bundleID);
  std::vector<AppFileInfo> files;
  std::unordered_set<const FileInfo*> taken;
  finder.scan([&](std::int64_t node) { return ids.count(node) > 0; },
              [&](const std::optional<CaseInsensitiveString>& k,
                  const std::shared_ptr<FileInfo>& file, const AppFile::Kind& kind, const RuleID&) {
                auto owner = ownerOf(k, *file);
                if (owner && taken.insert(file.get()).second) {
                  files.push_back(AppFileInfo{file, kind, std::move(*owner)});
                }
              });
  return files;
}

std::vector<AppFileInfo> claimEntries(FileFinder& finder, const MacApp& app) {
  return walkFor(
      finder, app.bundleID.origin(),
      [&](const std::optional<CaseInsensitiveString>& k, FileInfo& file) -> std::optional<App> {
        auto owner = ownerIn(app, k);
        if (!owner) return std::nullopt;  // another application's
        file.used = true;
        return InstalledApp{*owner};
      });
}

std::optional<MacAppID> ownerIn(const MacApp& app, const std::optional<CaseInsensitiveString>& k) {
  if (!k) return BundleID{app.bundleID};
  if (app.bundleIDs.count(*k)) return BundleID{*k};
  if (app.bundleNames.count(*k)) return BundleName{*k};
  if (app.organization && *k == *app.organization) return Organization{*k};
  return std::nullopt;
}

std::shared_ptr<AppFileFinder> AppFileFinder::create(std::shared_ptr<const RuleManager> rules) {
  if (!rules) {
    if (const RuleManager* shared = RuleManager::shared()) {
      rules = std::shared_ptr<const RuleManager>(shared, [](const RuleManager*) {});
    }
  }
  return std::make_shared<AppFileFinder>(Token{}, std::move(rules));
}

AppFileFinder::AppFileFinder(Token, std::shared_ptr<const RuleManager> rules)
    : rules_(std::move(rules)),
      finder_(compile(rules_.get())),
      seriallyDispatchQueue_("AppFileFinder", platform::QoS::userInitiated) {}

template <class Call>
void AppFileFinder::post(Call call) {
  std::weak_ptr<AppFileFinderDelegate> receiver = delegate;
  platform::DispatchQueue::main().async([receiver, call = std::move(call)] {
    if (auto live = receiver.lock()) call(*live);
  });
}

FileFinder::Statistics AppFileFinder::statistics() const {
  FileFinder::Statistics copy;
  seriallyDispatchQueue_.sync([&] { copy = finder_.statistics(); });
  return copy;
}

void AppFileFinder::scan() {
  std::weak_ptr<AppFileFinder> weak = weak_from_this();
  platform::DispatchQueue measuring("scan()", platform::QoS::userInitiated,
                                    platform::DispatchQueue::Attributes::concurrent);
  seriallyDispatchQueue_.async([weak, measuring] {
    if (auto self = weak.lock()) self->runScan(measuring);
  });
}

void AppFileFinder::scanLeftovers() {
  std::weak_ptr<AppFileFinder> weak = weak_from_this();
  platform::DispatchQueue measuring("scanLeftovers()", platform::QoS::userInitiated,
                                    platform::DispatchQueue::Attributes::concurrent);
  seriallyDispatchQueue_.async([weak, measuring] {
    if (auto self = weak.lock()) self->runLeftovers(measuring);
  });
}

std::vector<AppFileInfo> AppFileFinder::claim(const MacApp& app) {
  auto files = claimEntries(finder_, app);
  claimed_.insert(app.bundleID);
  return files;
}

void AppFileFinder::runScan(const platform::DispatchQueue& measuring) {
  // The cache is emptied here, on the queue that owns it, rather than on the caller's thread,
  // so that a scan asked for while another runs can't pull the cache from under it.
  finder_.resetCache();
  claimed_.clear();
  const platform::Locations& locations = platform::currentLocations();

  AppBundleLoader loader;
  BundleGroups found;
  for (const auto& url : applicationURLs()) {
    if (!keptByScan(url, locations) || isSystemProtected(url)) continue;
    auto bundle = loader.bundle(url);
    if (!bundle || bundle->bundleID.origin().empty()) continue;
    CaseInsensitiveString id = bundle->bundleID;
    found.add(std::move(bundle));
    post([id, url](AppFileFinderDelegate& d) { d.appFileFinderFoundApp(id, url); });
  }
  post([](AppFileFinderDelegate& d) { d.appFileFinderDidFindApps(); });

  for (auto& [id, bundles] : found.groups) {
    MacApp app = makeMacApp(bundles, rules_.get());
    auto files = claim(app);
    std::weak_ptr<AppFileFinderDelegate> receiver = delegate;
    measuring.async([receiver, id = id, app = std::move(app), files = std::move(files)] {
      AppFileSet set;
      for (const auto& info : files) set.files.push_back(appFile(info));
      for (const auto& url : app.urls) set.apps.push_back(File{url, applicationSize(url)});
      platform::DispatchQueue::main().async([receiver, id, set = std::move(set)] {
        if (auto live = receiver.lock()) live->appFileFinderFound(id, set);
      });
    });
  }
}

// Without a `scan()` before it, or for applications that `scan()` passes over (protected, not
// shown), the walk of each installed application runs here first, unreported, so that what it
// owns is marked used: an organization shared with a removed application could otherwise hand
// an installed application's files to a leftover.
void AppFileFinder::runLeftovers(const platform::DispatchQueue& measuring) {
  const platform::Locations& locations = platform::currentLocations();

  // 1, 2. What is installed: every application, shown or not, by every name it answers to.
  const InstalledApplications installed =
      InstalledApplications::read(locations, rules_.get(), [&](const MacApp& app) {
        if (!claimed_.count(app.bundleID)) claim(app);
      });

  // 3. What the disk shows: flatpak data folders, and configuration entries the rules name.
  std::vector<CaseInsensitiveString> candidates;
  std::unordered_set<CaseInsensitiveString> seen;
  auto consider = [&](const std::string& name) {
    CaseInsensitiveString id(name);
    if (seen.insert(id).second) candidates.push_back(std::move(id));
  };
  auto known = [&](const std::string& name) {
    return rules_ != nullptr && rules_->bundleIDs.count(CaseInsensitiveString(name)) > 0;
  };
  if (auto entries = listDirectory(locations.flatpakAppData); entries.ok()) {
    for (const auto& entry : *entries) {
      const std::string& name = entry.resourceValues.name;
      if (known(name) || !startsWithIgnoringCase(name, "org.freedesktop.")) consider(name);
    }
  }
  if (auto entries = listDirectory(locations.configHome); entries.ok()) {
    for (const auto& entry : *entries) {
      if (known(entry.resourceValues.name)) consider(entry.resourceValues.name);
    }
  }

  // 4, 5. Each identifier that nothing installed answers to.
  platform::DispatchGroup measured;
  for (const auto& c : candidates) {
    if (installed.isInstalled(c)) continue;
    const CaseInsensitiveString organization = organizationOf(c.origin()).value_or("");
    auto files = walkFor(
        finder_, c.origin(),
        [&](const std::optional<CaseInsensitiveString>& k, FileInfo& file) -> std::optional<App> {
          if (!k || (!(*k == c) && !(*k == organization)) || file.used) return std::nullopt;
          return AppName{c};
        });
    std::weak_ptr<AppFileFinderDelegate> receiver = delegate;
    measuring.async(measured, [receiver, c, files = std::move(files)] {
      std::vector<AppFile> result;
      for (const auto& info : files) result.push_back(appFile(info));
      platform::DispatchQueue::main().async([receiver, c, result = std::move(result)] {
        if (auto live = receiver.lock()) live->appFileFinderLeftovers(c, result);
      });
    });
  }
  // 6. After every leftover has been measured and posted.
  std::weak_ptr<AppFileFinderDelegate> receiver = delegate;
  measured.notify(measuring, [receiver] {
    platform::DispatchQueue::main().async([receiver] {
      if (auto live = receiver.lock()) live->appFileFinderDidFinishLeftovers();
    });
  });
}

}  // namespace Core
