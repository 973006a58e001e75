#pragma once

// The scans other than duplicates, as jobs both hosts run: the largest files, junk, the
// installed applications with their files, and what removed applications left.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Core/App.h"
#include "Core/File.h"
#include "host/AppFiles.h"
#include "host/Scan.h"
#include "host/SpaceTree.h"

namespace Core {
class LargeFileFinder;
class JunkFileFinder;
class AppFileFinder;
}  // namespace Core

namespace platform {
class MetadataQuery;
}

namespace host {

// The largest files below `folder` (the home folder when empty), largest first; `count` keeps
// only that many (0: all). With `tree`, then where the folder's space goes (see SpaceTree.h).
class LargeScan final : public ScanJob {
 public:
  // A folder that isn't one ends it with a `CommandError` of `kUsage`.
  LargeScan(const std::string& folder, std::int64_t minSize, std::size_t count = 0,
            bool tree = false);
  ~LargeScan() override;
  void stop() override;
  // {"files": [{"path", "size"}], "complete", "stopped", "errors"}, and "tree" when asked for
  void writeJson(const std::function<void(std::string_view)>& write) const override;
  std::vector<std::string> reportedPaths() const override;

  const std::vector<Core::File>& files() const { return files_; }
  const std::vector<ReadError>& errors() const { return errors_; }
  const std::optional<SpaceNode>& tree() const { return tree_; }

 private:
  class Delegate;
  void run() override;
  void found(std::vector<Core::File> files);
  void measure();
  std::string scope_;
  std::int64_t minSize_;
  std::size_t count_;
  bool wantTree_, measuring_ = false;
  std::optional<SpaceNode> tree_;
  std::shared_ptr<std::atomic<bool>> stopWalk_ = std::make_shared<std::atomic<bool>>(false);
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::unique_ptr<Core::LargeFileFinder> finder_;
  platform::MetadataQuery* index_ = nullptr;  // the finder's
  std::shared_ptr<Delegate> delegate_;
  std::vector<Core::File> files_;
  std::vector<ReadError> errors_;
};

// The categories of junk in the report's order, as the JSON keys and `--category` name them.
const std::vector<std::string>& junkCategories();

class JunkScan final : public ScanJob {
 public:
  struct Group {
    std::string id;
    std::string url;  // of the application; empty for orphans
    std::vector<Core::AppFile> files;
  };

  // Ends with a `CommandError` when the rules can't be loaded.
  JunkScan();
  ~JunkScan() override;
  void stop() override;
  // {"caches", "logs", "trash", "disk_images": [{"path", "size"}], "apps", "browsers": [{"id",
  // "url", "files"}], "orphans": [{"id", "files"}], "total", "stopped"}
  void writeJson(const std::function<void(std::string_view)>& write) const override;
  std::vector<std::string> reportedPaths() const override;
  // Logs go only while nothing writes them; a trashed item's description goes after it.
  DeletionRequest deletion(const std::set<std::string>& chosen) const override;
  // The paths of the chosen categories, each once.
  std::vector<std::string> paths(const std::set<std::string>& categories) const;

  std::vector<Core::File> caches, logs, trash, diskImages;
  std::vector<Group> apps, browsers, orphans;
  std::int64_t total() const;

 private:
  class Delegate;
  void run() override;
  std::shared_ptr<Core::JunkFileFinder> finder_;
  std::shared_ptr<Delegate> delegate_;
};

// The bytes of the files, or of every group's files.
std::int64_t totalSize(const std::vector<Core::File>& files);
std::int64_t totalSize(const std::vector<JunkScan::Group>& groups);

// The installed applications (with `files`, each one's files found and measured), or with
// `leftovers` what removed applications left. A scan of applications can't be stopped part way:
// a stop settles it with nothing.
class AppFilesScan final : public ScanJob {
 public:
  // Ends with a `CommandError` when the rules can't be loaded.
  AppFilesScan(bool files, bool leftovers);
  ~AppFilesScan() override;
  void stop() override;
  // Without leftovers: {"apps": [{"id", "names", "url", "organization", "nested"}]}, with
  // files each also "files": [{"path", "size", "kind", "owner"}], "size", "appSize". With
  // leftovers: {"leftovers": [{"id", "files": [{"path", "size", "kind"}], "size"}]}.
  void writeJson(const std::function<void(std::string_view)>& write) const override;
  std::vector<std::string> reportedPaths() const override;
  // Of an installed application only its caches and logs go: its settings and data are live
  // while it is installed, and are left alone with the reason.
  DeletionRequest deletion(const std::set<std::string>& chosen) const override;

  // `ravelin apps --json` of the applications named in `only` (all when empty); `seen` gets
  // each identifier found.
  nlohmann::json appsJson(const std::set<Core::CaseInsensitiveString>& only,
                          std::set<Core::CaseInsensitiveString>* seen = nullptr) const;
  nlohmann::json leftoversJson(const std::set<Core::CaseInsensitiveString>& only) const;
  const AppFilesReport& report() const { return report_; }

 private:
  class Delegate;
  void run() override;
  bool files_, leftovers_;
  std::shared_ptr<Core::AppFileFinder> finder_;
  std::shared_ptr<Delegate> delegate_;
  AppFilesReport report_;
};

}  // namespace host
