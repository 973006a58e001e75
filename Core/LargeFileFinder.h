#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Core/File.h"
#include "platform/Metadata.h"

namespace Core {

class LargeFileFinderDelegate {
 public:
  virtual ~LargeFileFinderDelegate() = default;
  // A sign of life: a path the search has reached.
  virtual void largeFileFinderCurrentURL(const std::string& url) = 0;
  // The result, largest first; also when empty.
  virtual void largeFileFinderFound(const std::vector<File>& files) = 0;
};

// Lists the files of the home folder that are at least a given size, largest first. All the
// searching is done by the file index; this class configures the query and turns its results
// into `File` records.
//
// Lives on the main queue: the host creates it, calls `start` and `stop` there, and the delegate
// is called there.
class LargeFileFinder {
 public:
  // `query` is the file index to ask; by default the platform's.
  explicit LargeFileFinder(
      std::unique_ptr<platform::MetadataQuery> query = platform::makeMetadataQuery());

  std::weak_ptr<LargeFileFinderDelegate> delegate;

  // Folders to search instead of the home folder (empty: the home folder).
  std::vector<std::string> searchScopes;

  // Searches for files of at least `minSize` bytes. A later call starts over.
  void start(std::int64_t minSize);
  // Ends the search; no result is reported for it.
  void stop();

 private:
  void didUpdate();
  void didFinishGathering();

  std::unique_ptr<platform::MetadataQuery> query_;
};

}  // namespace Core
