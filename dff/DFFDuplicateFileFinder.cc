#include "dff/DFFDuplicateFileFinder.h"

#include "platform/HostStatistics.h"
#include "platform/Phases.h"

namespace dff {

DFFDuplicateFileFinder::DFFDuplicateFileFinder()
    : finder_(std::make_unique<DuplicateFileFinder>(
          [this](double value) { progress(value); },
          [this](const Path& path) { current(path.string()); })) {}

DFFDuplicateFileFinder::~DFFDuplicateFileFinder() = default;

void DFFDuplicateFileFinder::setRootFolderURLs(std::vector<std::string> urls) {
  rootFolderURLs_ = std::move(urls);
  finder_->rootFolders.assign(rootFolderURLs_.begin(), rootFolderURLs_.end());
}

void DFFDuplicateFileFinder::setExcludePaths(std::vector<std::string> urls) {
  excludePaths_ = std::move(urls);
  finder_->excludePaths.assign(excludePaths_.begin(), excludePaths_.end());
}

void DFFDuplicateFileFinder::setExcludeExtensions(std::vector<std::string> suffixes) {
  excludeExtensions_ = std::move(suffixes);
  finder_->excludeExtensions = excludeExtensions_;
}

void DFFDuplicateFileFinder::setIncludeHiddenFolders(bool include) {
  includeHiddenFolders_ = include;
  finder_->includeHiddenFolders = include;
}

void DFFDuplicateFileFinder::setJobs(unsigned jobs) {
  jobs_ = jobs;
  finder_->jobs = jobs;
}

void DFFDuplicateFileFinder::setMinFileSize(std::int64_t size) {
  minFileSize_ = size;
  finder_->minFileSize = size;
}

DFFGroups DFFDuplicateFileFinder::find() {
  DFFGroups groups = convertResult(finder_->find());
  finder_->releaseFiles();
  // The tree was built and freed on this thread; the host builds what it shows on another.
  platform::releaseFreedMemory();
  platform::endPhase("facade");
  return groups;
}

void DFFDuplicateFileFinder::stop() { finder_->stop(); }

DFFGroups DFFDuplicateFileFinder::convertResult(const Result& result) {
  DFFGroups groups;
  groups.reserve(result.size());
  for (const Group& group : result) {
    auto& converted = groups.emplace_back();
    converted.reserve(group.size());
    for (File* entry : group) {
      if (auto* photo = dynamic_cast<Photo*>(entry)) {
        converted.push_back(
            std::make_shared<DFFPhoto>(photo->id, photo->path().string(), photo->size));
      } else {
        converted.push_back(std::make_shared<DFFFile>(entry->path().string(), entry->size));
      }
    }
  }
  return groups;
}

}  // namespace dff
