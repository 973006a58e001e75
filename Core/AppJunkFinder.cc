#include "Core/AppJunkFinder.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "Core/InstalledApplications.h"
#include "platform/Files.h"
#include "platform/Locations.h"

namespace Core {

namespace {

std::shared_ptr<const AppFileRule> compileCachesAndLogs(const RuleManager* rules) {
  static const RuleManager kNoRules;
  return std::make_shared<AppFileRule>(false, rules != nullptr ? *rules : kNoRules);
}

// Calls the delegate on the main queue, if it is still there then.
template <class Call>
void post(const std::weak_ptr<AppJunkFinderDelegate>& delegate, Call call) {
  platform::DispatchQueue::main().async([delegate, call = std::move(call)] {
    if (auto live = delegate.lock()) call(*live);
  });
}

std::vector<AppFile> measured(const std::vector<AppFileInfo>& infos) {
  std::vector<AppFile> files;
  files.reserve(infos.size());
  for (const auto& info : infos) files.push_back(appFile(info));
  return files;
}

}  // namespace

const std::unordered_set<CaseInsensitiveString>& browserIDs() {
  static const auto* ids = new std::unordered_set<CaseInsensitiveString>{"firefox",
                                                                         "firefox-esr",
                                                                         "org.mozilla.firefox",
                                                                         "google-chrome",
                                                                         "com.google.Chrome",
                                                                         "chromium",
                                                                         "org.chromium.Chromium",
                                                                         "microsoft-edge",
                                                                         "com.microsoft.Edge",
                                                                         "opera",
                                                                         "com.opera.Opera",
                                                                         "firefox_firefox",
                                                                         "chromium_chromium"};
  return *ids;
}

int applicationRank(const std::string& url, const platform::Locations& locations) {
  for (const auto& folder : locations.applications) {
    if (!url.starts_with(folder + "/")) continue;
    return folder.starts_with(locations.home + "/") ? 2 : 3;
  }
  return 0;
}

std::shared_ptr<AppJunkFinder> AppJunkFinder::create(std::shared_ptr<const RuleManager> rules) {
  if (!rules) {
    if (const RuleManager* shared = RuleManager::shared()) {
      rules = std::shared_ptr<const RuleManager>(shared, [](const RuleManager*) {});
    }
  }
  return std::make_shared<AppJunkFinder>(Token{}, std::move(rules));
}

AppJunkFinder::AppJunkFinder(Token, std::shared_ptr<const RuleManager> rules)
    : rules_(std::move(rules)), appFileRule_(compileCachesAndLogs(rules_.get())) {}

void AppJunkFinder::start() {
  std::weak_ptr<AppJunkFinder> weak = weak_from_this();
  auto setup = startScan(
      [weak](const std::string& url) {
        auto self = weak.lock();
        if (!self) return;
        if (auto live = self->delegate.lock()) live->appJunkFinderCurrentURL(url);
      },
      {1, 6, 2, 1},
      [weak](const double& fraction) {
        auto self = weak.lock();
        if (!self) return;
        if (auto live = self->delegate.lock()) live->appJunkFinderProgress(fraction);
      },
      [weak](const ScanSetup& running) {
        if (auto self = weak.lock()) self->run(running);
      });
  context = setup.context;
  // Not a work item of the context: an interrupted run still ends with this.
  setup.queue.async([weak] {
    platform::DispatchQueue::main().async([weak] {
      auto self = weak.lock();
      if (!self) return;
      if (auto live = self->delegate.lock()) live->appJunkFinderDidFinish();
    });
  });
}

void AppJunkFinder::run(const ScanSetup& setup) {
  FileFinder finder(appFileRule_);  // nothing of an earlier run survives
  FileFinderContext& context = *setup.context;
  Progress& progress = *setup.progress;
  const std::weak_ptr<AppJunkFinderDelegate> receiver = delegate;
  struct Keep {
    FileFinder& finder;
    FileFinder::Statistics& into;
    ~Keep() { into = finder.statistics(); }
  } keep{finder, statistics_};

  // 1. Discover, and rank the groups.
  const platform::Locations& locations = platform::currentLocations();
  AppBundleLoader loader;
  BundleGroups found;
  for (const auto& url : applicationURLs()) {
    if (context.interrupted()) return;
    context.urlObservable.update([&] { return url; });
    auto bundle = loader.bundle(url);
    if (bundle && !bundle->bundleID.origin().empty()) found.add(std::move(bundle));
  }
  auto& groups = found.groups;
  std::stable_sort(groups.begin(), groups.end(), [&](const auto& a, const auto& b) {
    return applicationRank(a.second.front()->url, locations) >
           applicationRank(b.second.front()->url, locations);
  });
  progress.nextPart();
  progress.partTotal = static_cast<std::int64_t>(groups.size());

  // 2. Match: each application takes what it owns, in rank order. A browser's report waits.
  struct Browser {
    CaseInsensitiveString id;
    std::string url;
    std::vector<AppFileInfo> matches;
    std::vector<AppFile> measured;  // what was measured already
  };
  std::vector<Browser> browsers;
  for (auto& [id, bundles] : groups) {
    if (context.interrupted()) return;
    MacApp app = makeMacApp(bundles, rules_.get());
    std::vector<AppFileInfo> matches = claimEntries(finder, app);
    if (browserIDs().count(app.bundleID)) {
      browsers.push_back(Browser{app.bundleID, app.urls.front(), std::move(matches), {}});
    } else if (!matches.empty()) {
      MacAppJunkFile junk{app.urls.front(), app.bundleID, measured(matches)};
      post(receiver, [junk = std::move(junk)](AppJunkFinderDelegate& d) {
        d.appJunkFinderFoundAppJunk(junk);
      });
    }
    progress.advancePart();
  }

  // 3. Orphans: what the rules describe and no installed application took. What belongs to an
  // application installed without a shown desktop entry (a command-line tool, a package by
  // another name, a hidden entry) is that application's junk, never an orphan.
  if (context.interrupted()) return;
  progress.nextPart();
  std::vector<AppFileInfo> unclaimed;
  finder.scanUnclaimed([](std::int64_t) { return true; }, unclaimed);
  const InstalledApplications installed = InstalledApplications::read(locations, rules_.get());
  std::vector<AppJunkFile> grouped;
  std::unordered_map<CaseInsensitiveString, std::size_t> orphanIndex;
  std::vector<std::pair<std::string, AppJunkFile>> tools;  // where installed, junk
  std::unordered_map<CaseInsensitiveString, std::size_t> toolIndex;
  for (const auto& record : unclaimed) {
    if (context.interrupted()) return;
    const CaseInsensitiveString& id = std::get<AppName>(record.owner).id;
    if (!(id == CaseInsensitiveString(""))) {
      if (auto where = installed.whereInstalled(id)) {
        auto [found, inserted] = toolIndex.try_emplace(id, tools.size());
        if (inserted) tools.emplace_back(*where, AppJunkFile{id, {}});
        tools[found->second].second.files.push_back(appFile(record));
        continue;
      }
    }
    if (id == CaseInsensitiveString("")) {
      // An entry of the general rules that yielded no identifier stands alone, by its name.
      AppJunkFile alone{platform::lastPathComponent(record.file->url), {appFile(record)}};
      post(receiver, [alone = std::move(alone)](AppJunkFinderDelegate& d) {
        d.appJunkFinderFoundOrphanJunk(alone);
      });
      continue;
    }
    auto [found, inserted] = orphanIndex.try_emplace(id, grouped.size());
    if (inserted) grouped.push_back(AppJunkFile{id, {}});
    grouped[found->second].files.push_back(appFile(record));
  }
  for (auto& [where, junk] : tools) {
    MacAppJunkFile owned{where, junk.id, std::move(junk.files)};
    if (browserIDs().count(junk.id)) {
      browsers.push_back(Browser{owned.bundleID, owned.appURL, {}, {}});
      browsers.back().measured = std::move(owned.files);
      continue;
    }
    post(receiver, [owned = std::move(owned)](AppJunkFinderDelegate& d) {
      d.appJunkFinderFoundAppJunk(owned);
    });
  }
  post(receiver, [grouped = std::move(grouped)](AppJunkFinderDelegate& d) {
    for (const auto& junk : grouped) d.appJunkFinderFoundOrphanJunk(junk);
  });
  progress.nextPart();

  // 4. Browsers, apart and last.
  for (auto& browser : browsers) {
    if (context.interrupted()) return;
    MacAppJunkFile junk{browser.url, browser.id, measured(browser.matches)};
    junk.files.insert(junk.files.end(), std::make_move_iterator(browser.measured.begin()),
                      std::make_move_iterator(browser.measured.end()));
    post(receiver, [junk = std::move(junk)](AppJunkFinderDelegate& d) {
      d.appJunkFinderFoundBrowserJunk(junk);
    });
  }
  progress.nextPart();
}

}  // namespace Core
