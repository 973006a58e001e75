#pragma once

// The uninstaller's two questions: which files belong to each installed application (`scan()`),
// and which were left behind by applications that are gone (`scanLeftovers()`).
//
// Walks run one at a time on the serial queue "AppFileFinder", which owns the `FileFinder` and
// all it caches; sizes are measured on a concurrent queue, one block per application. Every
// delegate call comes on the main queue. There is no stop: a scan, once started, runs to its
// end. Blocks handed to queues hold the finder weakly.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Core/App.h"
#include "Core/AppBundle.h"
#include "Core/AppFileRule.h"
#include "Core/CaseInsensitiveString.h"
#include "Core/File.h"
#include "Core/FileFinder.h"
#include "Core/RuleManager.h"
#include "platform/Dispatch.h"

namespace Core {

// An application's bundles (desktop entries on Linux) and its files.
struct AppFileSet {
  std::vector<File> apps;
  std::vector<AppFile> files;
};

// Everything known of one installed application.
struct MacApp {
  CaseInsensitiveString bundleID;
  std::vector<std::string> urls;  // every bundle with this identifier
  // The identifier, the rule's further identifiers and those of nested bundles.
  std::unordered_set<CaseInsensitiveString> bundleIDs;
  std::unordered_set<CaseInsensitiveString> bundleNames;
  std::optional<CaseInsensitiveString> organization;  // the rule's, else the identifier's domain
};

// The `MacApp` of the bundles of one identifier (not empty): the rules' further identifiers and
// organization, else the organization from the public suffix list, and what is nested in each
// bundle, which this loads.
MacApp makeMacApp(std::vector<std::unique_ptr<AppBundle>>& bundles, const RuleManager* rules);

// By which of its names `app` owns an entry delivered with identifier `k`: none given is the
// application's own, then its identifiers, its bundle names, its organization. Nothing when the
// entry is another application's.
std::optional<MacAppID> ownerIn(const MacApp& app, const std::optional<CaseInsensitiveString>& k);

// Bundles grouped by identifier, in the order each identifier was first met.
struct BundleGroups {
  std::vector<std::pair<CaseInsensitiveString, std::vector<std::unique_ptr<AppBundle>>>> groups;
  std::unordered_map<CaseInsensitiveString, std::size_t> index;

  void add(std::unique_ptr<AppBundle> bundle);
};

// The owner an entry delivered with identifier `k` has, or nothing when it isn't taken.
using OwnerOf =
    std::function<std::optional<App>(const std::optional<CaseInsensitiveString>& k, FileInfo&)>;

// Walks the nodes of `finder` that serve `bundleID` and keeps each entry that `ownerOf` gives an
// owner, once: two matchers of one application may deliver the same entry.
std::vector<AppFileInfo> walkFor(FileFinder& finder, const std::string& bundleID,
                                 const OwnerOf& ownerOf);

// The walk of one installed application: what it owns by any of its names, marked as used.
std::vector<AppFileInfo> claimEntries(FileFinder& finder, const MacApp& app);

class AppFileFinderDelegate {
 public:
  virtual ~AppFileFinderDelegate() = default;
  // Once for each bundle that `scan()` keeps.
  virtual void appFileFinderFoundApp(const CaseInsensitiveString& id, const std::string& url) = 0;
  // Once, after the last bundle.
  virtual void appFileFinderDidFindApps() = 0;
  // Once per application, in no defined order.
  virtual void appFileFinderFound(const CaseInsensitiveString& id, const AppFileSet& set) = 0;
  // Once per identifier that no installed application answers to, also when nothing was found.
  virtual void appFileFinderLeftovers(const CaseInsensitiveString& id,
                                      const std::vector<AppFile>& files) = 0;
  // Once at the end of `scanLeftovers()`, after every leftover result.
  virtual void appFileFinderDidFinishLeftovers() = 0;
};

class AppFileFinder : public std::enable_shared_from_this<AppFileFinder> {
  struct Token {};

 public:
  // Over the rules built into the library (or `rules`, which a test may load over a fixture
  // tree). With no rules, scans find applications but no files.
  static std::shared_ptr<AppFileFinder> create(std::shared_ptr<const RuleManager> rules = nullptr);
  AppFileFinder(Token, std::shared_ptr<const RuleManager> rules);

  std::weak_ptr<AppFileFinderDelegate> delegate;

  // Finds the installed applications and, for each, the files it owns. Starts from the disk.
  void scan();

  // Finds what applications that are no longer installed left behind. An entry that an
  // installed application owns is never among them.
  void scanLeftovers();

  // What the walks have cost since the last `scan()`. Read it once the scan has finished.
  FileFinder::Statistics statistics() const;

 private:
  void runScan(const platform::DispatchQueue& measuring);
  void runLeftovers(const platform::DispatchQueue& measuring);
  // Runs the walk of one application, marking what it owns as used.
  std::vector<AppFileInfo> claim(const MacApp& app);
  template <class Call>
  void post(Call call);

  std::shared_ptr<const RuleManager> rules_;
  FileFinder finder_;
  platform::DispatchQueue seriallyDispatchQueue_;
  // The applications whose walk ran in the cache's current lifetime.
  std::unordered_set<CaseInsensitiveString> claimed_;
};

// Whether the system protects the application at `url` from changes: its entry or bundle lies on
// a read-only mount (an immutable system image). Such an application isn't scanned, but it
// counts as installed.
bool isSystemProtected(const std::string& url);

}  // namespace Core
