#pragma once

// The walk of the compiled rules over the disk, for one application at a time, with a cache of
// what each folder holds: a folder that many applications share (~/.cache, ~/.config) is listed
// at most once per cache lifetime, a literal path costs one existence test and no listing, and
// an entry one application has taken is seen as taken by the next.
//
// Also the three disk helpers of every scanner: `listDirectory`, `itemSize`, `directorySize`.
// Each reads the scan's context from the queue it runs on, offers the path it works on for
// display, and gives up at once when the scan is interrupted.
//
// A `FileFinder` isn't thread-safe: all its walks run on one serial queue. Only the measured
// `size` of a `FileInfo` is touched from other threads, under that entry's semaphore.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "Core/App.h"
#include "Core/AppFileRule.h"
#include "Core/CaseInsensitiveString.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Result.h"

namespace Core {

// One entry that a rule has claimed.
class FileInfo {
 public:
  FileInfo(std::string url, std::int64_t priority) : url(std::move(url)), priority(priority) {}

  const std::string url;
  std::int64_t priority;  // of the matcher that first claimed it
  bool used = false;      // an application's scan took it as its own
  // Measured once, by whoever takes `semaphore` first; see `appFile`.
  std::optional<std::int64_t> size;
  platform::DispatchSemaphore semaphore{1};
};

class DirectoryInfo;

// What is known of one name in a folder.
struct UnknownNode {
  bool symbolicLink = false;  // a link is claimed as itself, never entered
};
struct NotExistsNode {};
using FileNode = std::variant<std::shared_ptr<FileInfo>, std::shared_ptr<DirectoryInfo>,
                              UnknownNode, NotExistsNode>;

// The outcome of a non-literal matcher that already ran in a folder, keyed by the identifier
// the match yielded (absent where it yielded none).
struct MatchedFiles {
  std::int64_t priority;
  std::unordered_map<std::optional<CaseInsensitiveString>, std::vector<std::shared_ptr<FileInfo>>>
      files;
};
struct MatchedDirectories {
  std::unordered_map<std::optional<CaseInsensitiveString>,
                     std::vector<std::shared_ptr<DirectoryInfo>>>
      directories;
};
using MatchedResult = std::variant<MatchedFiles, MatchedDirectories>;

struct MatcherHash {
  std::size_t operator()(const Matcher& matcher) const { return hashOf(matcher); }
};

class DirectoryInfo {
 public:
  explicit DirectoryInfo(std::string url) : url(std::move(url)) {}

  const std::string url;
  bool scanned = false;  // listed in full: `children` names every entry
  // By the name as the disk spells it: names are case-sensitive here, so a literal matcher
  // finds its own spelling only, whether or not the folder was listed, and "Code" and "code"
  // are two entries. Matching an identifier to a name ignores case all the same.
  std::unordered_map<std::string, FileNode> children;
  std::unordered_map<Matcher, MatchedResult, MatcherHash> matched;
};

// The identifier inherited from the folders above, and the nodes to apply in a folder.
struct FileContext {
  std::optional<CaseInsensitiveString> id;
  const std::vector<MatcherNode>* rules = nullptr;
};

// A claimed entry before it is measured.
struct AppFileInfo {
  std::shared_ptr<FileInfo> file;
  AppFile::Kind kind;
  App owner;
};

// An entry of a listing with the values read for it.
struct URLResource {
  std::string url;
  platform::DirectoryEntry resourceValues;
};

class FileFinder {
 public:
  using Filter = std::function<bool(std::int64_t)>;
  using Handler = std::function<void(const std::optional<CaseInsensitiveString>& identifier,
                                     const std::shared_ptr<FileInfo>& file,
                                     const AppFile::Kind& kind, const RuleID& ruleID)>;

  // What the walks cost since the cache was last emptied.
  struct Statistics {
    std::vector<std::string> listed;  // every folder listed, in order
    std::size_t existenceTests = 0;   // literal names tested on disk
    std::size_t directories = 0;      // folders the rules reached (roots included)
  };

  explicit FileFinder(std::shared_ptr<const AppFileRule> appFileRule);

  // Forgets everything learnt: the next walk starts from the disk.
  void resetCache();

  // Walks the nodes whose numbers pass `filter` and gives `handler` every entry they claim.
  void scan(const Filter& filter, const Handler& handler);

  // The same walk over every node: appends each claimed entry that no application has used,
  // except what the "@" and "#" rules claim, with an owner that holds the identifier the match
  // gave (the empty text where there was none).
  void scanUnclaimed(const Filter& filter, std::vector<AppFileInfo>& into);

  const Statistics& statistics() const { return statistics_; }
  const AppFileRule& appFileRule() const { return *appFileRule_; }

  std::unordered_map<std::string, std::shared_ptr<DirectoryInfo>> cache;  // the roots

 private:
  struct Level;
  void walk(const Filter& filter, const Handler& deliver);
  void fileStep(DirectoryInfo& d, const std::optional<CaseInsensitiveString>& c,
                const FileMatcher& m, const Filter& filter, const Handler& deliver);
  void matchFiles(DirectoryInfo& d, const std::optional<CaseInsensitiveString>& c,
                  const FileMatcher& m, const Filter& filter, const Handler& deliver);
  void directoryStep(DirectoryInfo& d, const std::optional<CaseInsensitiveString>& c,
                     const DirectoryMatcher& m, Level& next);
  void matchDirectories(DirectoryInfo& d, const std::optional<CaseInsensitiveString>& c,
                        const DirectoryMatcher& m, Level& next);
  std::shared_ptr<DirectoryInfo> makeDirectory(std::string url);
  // Lists `d` once: false, with nothing stored, when it can't be listed.
  bool list(DirectoryInfo& d, std::vector<URLResource>& entries);

  std::shared_ptr<const AppFileRule> appFileRule_;
  Statistics statistics_;
};

// The entries of the folder `url` (links not followed), never ".DS_Store"; an entry whose values
// can't be read is left out. Inside an interrupted scan, an empty list.
platform::Result<std::vector<URLResource>> listDirectory(const std::string& url);

// The size of a file or link, or of everything below a folder; 0 for anything else and for what
// can't be read.
std::int64_t itemSize(const std::string& url);

// The bytes below the folder `url`. When reading it meets a folder the user may not read, the
// privileged helper measures it instead, if one is installed (0 if not); an interruption of the
// scan stops that measurement too. The helper's connection is made on the main queue, so this
// is never called on the main thread.
std::int64_t directorySize(const std::string& url);

// `info` measured (once, whoever asks first) as an application file.
AppFile appFile(const AppFileInfo& info);

}  // namespace Core
