#pragma once

// The system junk scan, the host's one entry point to it: the system's caches, crash reports
// and rotated logs, the items of the trashes, the disk images in the home folder, and then the
// application stage (`AppJunkFinder`) for what the rules describe.
//
// On Linux the categories hold only what can go without loss: the children of /var/cache except
// what a package can't rebuild, crash reports, logs no program writes any more (see
// `finishedLogs`), and trashed items. The finder only reports; deleting is the host's business.
//
// The three category reports come on the scan's serial queue; every other delegate call on the
// main queue. `start()` and `stop()` are called on the main thread.

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Core/AppJunkFinder.h"
#include "Core/File.h"
#include "platform/Files.h"
#include "platform/Metadata.h"

namespace Core {

class JunkFileFinderDelegate {
 public:
  virtual ~JunkFileFinderDelegate() = default;
  virtual void junkFileFinderCurrentURL(const std::string& url) = 0;
  virtual void junkFileFinderProgress(double fraction) = 0;
  // On the scan queue.
  virtual void junkFileFinderFoundSystemCache(const File& file) = 0;
  virtual void junkFileFinderFoundLog(const File& file) = 0;
  virtual void junkFileFinderFoundTrashItem(const File& file) = 0;
  // On the main queue from here on.
  virtual void junkFileFinderDidFinishSystemFiles() = 0;
  virtual void junkFileFinderFoundDiskImages(const std::vector<File>& files) = 0;
  virtual void junkFileFinderFoundAppJunk(const MacAppJunkFile& junk) = 0;
  virtual void junkFileFinderFoundOrphanJunk(const AppJunkFile& junk) = 0;
  virtual void junkFileFinderFoundBrowserJunk(const MacAppJunkFile& junk) = 0;
  virtual void junkFileFinderDidFinish() = 0;
};

// Entries of the system caches folder that are never reported: a package keeps what it can't
// rebuild there (debconf's database, cracklib's dictionary, ...).
const std::set<std::string>& systemCacheExclusions();

// Which entries of one log folder are logs no program writes any more, by name, age and
// siblings; `now` in seconds since 1970. A regular file is finished when
// - it is an archived or damaged journal file (NAME@...journal, NAME.journal~), or
// - it is compressed (.gz, .xz, .bz2, .zst, .lz4, .Z), or
// - its name is a live log's with a rotation suffix (.1, .old, -20261101, .2026-11-01) and that
//   live log is beside it, or
// - it carries a rotation suffix on a log-like name (ending in "log", or messages, wtmp, ...)
//   and it is older than the newest of its siblings or than a week;
// and never when it changed in the last hour, belongs to a family whose numbered files are all
// live (database binary and relay logs, InnoDB and Aria logs, write-ahead logs), or is part of
// an archive (a sibling BASE.meta or BASE.index, as PCP writes them).
std::vector<bool> finishedLogs(const std::vector<platform::DirectoryEntry>& entries,
                               std::int64_t now);

class JunkFileFinder : public AppJunkFinderDelegate,
                       public std::enable_shared_from_this<JunkFileFinder> {
  struct Token {};

 public:
  using QueryFactory = std::function<std::unique_ptr<platform::MetadataQuery>()>;

  // Over the rules built into the library (or `rules`), with the platform's file index for the
  // disk images (or what `makeQuery` gives).
  static std::shared_ptr<JunkFileFinder> create(std::shared_ptr<const RuleManager> rules = nullptr,
                                                QueryFactory makeQuery = nullptr);
  JunkFileFinder(Token, std::shared_ptr<const RuleManager> rules, QueryFactory makeQuery);

  std::weak_ptr<JunkFileFinderDelegate> delegate;

  void start();
  // Ends the scan at its next step: a category returns, the disk images come as an empty list,
  // the application stage ends, and `junkFileFinderDidFinish()` still comes.
  void stop();

  std::shared_ptr<AppJunkFinder> appFileFinder;

  // AppJunkFinderDelegate: forwarded to `delegate`.
  void appJunkFinderCurrentURL(const std::string& url) override;
  void appJunkFinderProgress(double fraction) override;
  void appJunkFinderFoundAppJunk(const MacAppJunkFile& junk) override;
  void appJunkFinderFoundOrphanJunk(const AppJunkFile& junk) override;
  void appJunkFinderFoundBrowserJunk(const MacAppJunkFile& junk) override;
  void appJunkFinderDidFinish() override;

 private:
  void run(const ScanSetup& setup);
  void caches(FileFinderContext& context);
  void logs(FileFinderContext& context);
  void trash(FileFinderContext& context);
  // On the main queue: the system categories are through; the disk images come next.
  void endSystemFiles();
  void diskImages();
  void finishDiskImages(std::vector<File> found);

  QueryFactory makeQuery_;
  std::shared_ptr<FileFinderContext> interrupter_;
  // A stop came: the application stage isn't started any more (a stage started and interrupted
  // at once could still report what it found first).
  bool stopped_ = false;
  std::shared_ptr<Progress> progress_;
  std::unique_ptr<platform::MetadataQuery> query_;
};

}  // namespace Core
