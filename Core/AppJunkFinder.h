#pragma once

// The last stage of the junk scan: the caches and logs that the rules describe, for each
// installed application, for the browsers (reported last, apart), and for no installed
// application at all (orphans). Only the caches and logs sections of the rules are used: support
// files are never junk.
//
// A run goes on its own serial queue "start()" with a `FileFinderContext`, and starts from the
// disk each time. Every delegate call comes on the main queue; `appJunkFinderDidFinish()` comes
// once per run, also after an interruption.

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "Core/AppFileFinder.h"
#include "Core/FileFinderContext.h"

namespace Core {

// The junk of an installed application or a browser.
struct MacAppJunkFile {
  std::string appURL;
  CaseInsensitiveString bundleID;
  std::vector<AppFile> files;
};

// Junk that no installed application owns.
struct AppJunkFile {
  CaseInsensitiveString id;
  std::vector<AppFile> files;
};

class AppJunkFinderDelegate {
 public:
  virtual ~AppJunkFinderDelegate() = default;
  virtual void appJunkFinderCurrentURL(const std::string& url) = 0;
  virtual void appJunkFinderProgress(double fraction) = 0;
  virtual void appJunkFinderFoundAppJunk(const MacAppJunkFile& junk) = 0;
  virtual void appJunkFinderFoundOrphanJunk(const AppJunkFile& junk) = 0;
  virtual void appJunkFinderFoundBrowserJunk(const MacAppJunkFile& junk) = 0;
  virtual void appJunkFinderDidFinish() = 0;
};

// The browsers, by every identifier their Debian, flatpak and snap packages install under.
const std::unordered_set<CaseInsensitiveString>& browserIDs();

class AppJunkFinder : public std::enable_shared_from_this<AppJunkFinder> {
  struct Token {};

 public:
  // Over the rules built into the library, or `rules`.
  static std::shared_ptr<AppJunkFinder> create(std::shared_ptr<const RuleManager> rules = nullptr);
  AppJunkFinder(Token, std::shared_ptr<const RuleManager> rules);

  std::weak_ptr<AppJunkFinderDelegate> delegate;
  // The running scan's context; interrupting it ends the scan at its next step. Used from the
  // main thread.
  std::shared_ptr<FileFinderContext> context;

  void start();

  // What the last run's walks cost; read it on the main queue once `appJunkFinderDidFinish()`
  // has come.
  const FileFinder::Statistics& statistics() const { return statistics_; }

 private:
  void run(const ScanSetup& setup);

  std::shared_ptr<const RuleManager> rules_;
  std::shared_ptr<const AppFileRule> appFileRule_;
  FileFinder::Statistics statistics_;
};

// Orders application groups by where their first bundle lies: the system's application folders
// first, then the user's, then the rest, so that an application installed for the system takes
// a shared entry before another copy does. Stable among equals.
int applicationRank(const std::string& url, const platform::Locations& locations);

}  // namespace Core
