#include "Core/LargeFileFinder.h"

namespace Core {

LargeFileFinder::LargeFileFinder(std::unique_ptr<platform::MetadataQuery> query)
    : query_(std::move(query)) {
  // The query is owned by this object and delivers nothing once it is gone, so the handlers may
  // refer to this object directly.
  query_->setDidUpdate([this] { didUpdate(); });
  query_->setDidFinishGathering([this] { didFinishGathering(); });
}

void LargeFileFinder::start(std::int64_t minSize) {
  auto predicate =
      platform::predicateFromMetadataQueryString("kMDItemFSSize >= " + std::to_string(minSize));
  if (!predicate) return;
  query_->setPredicate(*predicate);
  query_->setSearchScopes(searchScopes);
  query_->setNotificationBatchingInterval(std::chrono::milliseconds(100));
  query_->setSortBySizeDescending(true);
  query_->startQuery();
}

void LargeFileFinder::stop() { query_->stopQuery(); }

void LargeFileFinder::didUpdate() {
  const auto& results = query_->results();
  if (results.empty() || !results.back().path) return;
  if (auto d = delegate.lock()) d->largeFileFinderCurrentURL(*results.back().path);
}

void LargeFileFinder::didFinishGathering() {
  query_->stopQuery();
  std::vector<File> files;
  for (const auto& item : query_->results()) {
    if (!item.path || !item.size) continue;
    files.push_back(File{*item.path, *item.size});
  }
  auto d = delegate.lock();
  if (!d) return;
  if (!files.empty()) d->largeFileFinderCurrentURL(files.back().url);
  d->largeFileFinderFound(files);
}

}  // namespace Core
