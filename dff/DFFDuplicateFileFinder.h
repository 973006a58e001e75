#pragma once

// The engine in plain values: paths, strings and numbers in; arrays of `DFFFile` and `DFFPhoto`
// out. The engine's tree never outlives `find`, which converts and releases it before returning.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dff/DuplicateFileFinder.h"

namespace dff {

class DFFFile {
 public:
  DFFFile(std::string url, std::int64_t size) : url(std::move(url)), size(size) {}
  virtual ~DFFFile() = default;
  std::string url;  // absolute path
  std::int64_t size;
};

class DFFPhoto final : public DFFFile {
 public:
  DFFPhoto(std::string id, std::string url, std::int64_t size)
      : DFFFile(std::move(url), size), id(std::move(id)) {}
  std::string id;
};

using DFFGroups = std::vector<std::vector<std::shared_ptr<DFFFile>>>;

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

  // Runs a search and gives its groups: folders and packages come back as `DFFFile` with their
  // total size.
  DFFGroups find();
  void stop();

 protected:
  // Called on the engine's thread; subclasses pass them on.
  virtual void progress(double value) {}
  virtual void current(const std::string& url) {}

  static DFFGroups convertResult(const Result& result);

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
