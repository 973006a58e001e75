#include "dff/DFFDuplicateFileFinder.h"

#include <unordered_map>

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

FoundGroups DFFDuplicateFileFinder::find() {
  FoundGroups groups = convertResult(finder_->find());
  finder_->releaseFiles();
  // The tree was built and freed on this thread; the host builds what it shows on another.
  platform::releaseFreedMemory();
  platform::endPhase("facade");
  return groups;
}

void DFFDuplicateFileFinder::stop() { finder_->stop(); }

FoundGroups DFFDuplicateFileFinder::convertResult(const Result& result) {
  FoundGroups groups;
  std::size_t members = 0;
  for (const Group& group : result) members += group.size();
  groups.reserve(result.size(), members);
  // Each folder's path is built once, however many members it holds, and the block of names
  // the folder keeps for its entries goes over with it: the tree is freed right after.
  std::unordered_map<Container*, std::uint32_t> folders;
  for (const Group& group : result) {
    for (File* entry : group) {
      auto* folder = dynamic_cast<Directory*>(entry->parent);
      if (auto* photo = dynamic_cast<Photo*>(entry)) {
        groups.addPath(photo->path().string(), photo->size, photo->id);
      } else if (entry->keepsWholePath() || folder == nullptr) {
        groups.addPath(entry->path().string(), entry->size);
      } else {
        auto [at, added] = folders.try_emplace(folder, 0);
        if (added) {
          at->second = groups.addFolder(folder->path().string());
          groups.keepBlock(std::move(folder->names));
        }
        groups.addKept(at->second, entry->name(), entry->size);
      }
    }
    groups.endGroup();
  }
  return groups;
}

}  // namespace dff
