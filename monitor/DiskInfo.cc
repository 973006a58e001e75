#include "monitor/DiskInfo.h"

#include <fts.h>
#include <sys/stat.h>

#include "platform/Disks.h"
#include "platform/Locations.h"

namespace monitor {

std::optional<std::shared_ptr<DiskInfo>> GetDiskInfo() {
  auto space = platform::fileSystemSpace("/");
  if (!space) return std::nullopt;
  auto info = std::make_shared<DiskInfo>();
  info->totalSize = space->total;
  info->freeSize = space->available;
  return info;
}

DiskInfoReader& DiskInfoReader::shared() {
  static auto* reader = new DiskInfoReader;
  return *reader;
}

std::optional<std::shared_ptr<DiskInfo>> DiskInfoReader::readInfo() const {
  auto info = GetDiskInfo();
  std::int64_t important = platform::importantUsageCapacity(_rootUrl);
  if (important < 1) important = 0;
  if (info && (*info)->freeSize < important) (*info)->freeSize = important;

  const std::string& documents = platform::currentLocations().home;
  if (documents.empty()) return info;
  auto space = platform::fileSystemSpace(documents);
  if (!space || !info) return info;
  if (space->available > (*info)->freeSize) (*info)->freeSize = space->available;
  if (space->total > (*info)->totalSize) (*info)->totalSize = space->total;
  return info;
}

bool DiskInfoReader::isSSD() const {
  auto name = platform::blockDeviceOfMount(_rootUrl);
  return name ? isSolidState(*name) : false;
}

bool isSolidState(const std::string& bsdName) { return platform::blockDeviceIsSolidState(bsdName); }

std::int64_t GetDirectorySize(const char* path, const std::atomic<bool>* stop, int* error) {
  char* paths[] = {const_cast<char*>(path), nullptr};
  FTS* walk = ::fts_open(paths, FTS_PHYSICAL | FTS_NOCHDIR, nullptr);
  if (walk == nullptr) return 0;
  std::int64_t total = 0;
  // The stop flag is read between entries. The first entry, the folder itself, is always read:
  // glibc's fts_close leaks the root entries of a walk that never read one.
  for (bool first = true; first || stop == nullptr || !stop->load(std::memory_order_relaxed);
       first = false) {
    FTSENT* entry = ::fts_read(walk);
    if (entry == nullptr) break;
    if (entry->fts_info == FTS_F) {
      total += entry->fts_statp->st_size;
    } else if (error != nullptr && entry->fts_errno != 0) {
      *error = entry->fts_errno;
    }
  }
  ::fts_close(walk);
  return total;
}

}  // namespace monitor
