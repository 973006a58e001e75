#pragma once

// The start-up disk's size, free space and medium, and the size of a folder.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/TreeWalker.h"

namespace monitor {

class DiskInfo {
 public:
  std::int64_t totalSize = 0;
  std::int64_t freeSize = 0;  // what an unprivileged user can still write
};

// Size and free space of the file system of "/"; nothing when it can't be read.
std::optional<std::shared_ptr<DiskInfo>> GetDiskInfo();

// Reads the start-up disk. Keeps nothing that changes; safe from any thread.
class DiskInfoReader {
 public:
  static DiskInfoReader& shared();

  // `GetDiskInfo`, with each value raised to the largest of its other sources: space the system
  // would free for important use, and the file system of the user's files. Nothing when "/"
  // can't be read, whatever the other sources say.
  std::optional<std::shared_ptr<DiskInfo>> readInfo() const;

  // Whether the disk behind "/" is solid state; false when that can't be told.
  bool isSSD() const;

 private:
  DiskInfoReader() = default;
  const std::string _rootUrl = "/";
};

// Whether the block device `bsdName` ("sda", "nvme0n1p2", "dm-0") is solid state.
bool isSolidState(const std::string& bsdName);

// The sum of the sizes (st_size) of the regular files below `path`, walked without following
// links; hard links count each time. Reads `stop` between entries and gives the sum so far when
// it is set. An unreadable entry doesn't end the walk: its error number is stored in `error`,
// the last one seen staying, and when `errors` is given each path that couldn't be read is
// added to it. Gives 0 when the walk can't start. Safe on several threads at once.
std::int64_t GetDirectorySize(const char* path, const std::atomic<bool>* stop = nullptr,
                              int* error = nullptr,
                              std::vector<platform::WalkError>* errors = nullptr);

}  // namespace monitor
