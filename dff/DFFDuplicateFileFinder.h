#pragma once

// The engine in plain values: paths, strings and numbers in; the groups found out, as flat
// arrays of names and sizes. The engine's tree never outlives `find`, which converts and releases
// it before returning.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dff/DuplicateFileFinder.h"
#include "dff/FoundGroups.h"

namespace dff {

// Holds one engine. The setters write through to the engine at once. `find` runs on the calling
// thread; `stop` may come from any thread.
class DFFDuplicateFileFinder {
 public:
  DFFDuplicateFileFinder();
  virtual ~DFFDuplicateFileFinder();
  DFFDuplicateFileFinder(const DFFDuplicateFileFinder&) = delete;
  DFFDuplicateFileFinder& operator=(const DFFDuplicateFileFinder&) = delete;

  const std::vector<std::string>& rootFolderURLs() const { return rootFolderURLs_; }
  void setRootFolderURLs(std::vector<std::string> urls);
  const std::vector<std::string>& excludePaths() const { return excludePaths_; }
  void setExcludePaths(std::vector<std::string> urls);
  const std::vector<std::string>& excludeExtensions() const { return excludeExtensions_; }
  void setExcludeExtensions(std::vector<std::string> suffixes);
  bool includeHiddenFolders() const { return includeHiddenFolders_; }
  void setIncludeHiddenFolders(bool include);
  std::int64_t minFileSize() const { return minFileSize_; }
  void setMinFileSize(std::int64_t size);
  // Threads that read and digest files at once (0: one per processor); the result doesn't
  // depend on it.
  unsigned jobs() const { return jobs_; }
  void setJobs(unsigned jobs);

  // Runs a search and gives its groups: folders and packages come back as members with their
  // total size, pictures with their identifier.
  FoundGroups find();
  void stop();

 protected:
  // Called on the engine's thread; subclasses pass them on.
  virtual void progress(double value) {}
  virtual void current(const std::string& url) {}

  static FoundGroups convertResult(const Result& result);

 private:
  std::vector<std::string> rootFolderURLs_;
  std::vector<std::string> excludePaths_;
  std::vector<std::string> excludeExtensions_;
  bool includeHiddenFolders_ = false;
  std::int64_t minFileSize_ = 0;
  unsigned jobs_ = 0;
  std::unique_ptr<DuplicateFileFinder> finder_;
};

}  // namespace dff
