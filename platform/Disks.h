#pragma once

// Facts about mounted file systems and the disks behind them.

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

struct FileSystemSpace {
  std::int64_t total = 0;      // bytes of the file system
  std::int64_t available = 0;  // bytes an unprivileged user can still write
};

// The space of the file system holding `path` (statvfs); nothing when it can't be read.
std::optional<FileSystemSpace> fileSystemSpace(const std::string& path);

// Space the system would free on demand for important use, beyond what is available now, as
// macOS counts purgeable space. Linux keeps no such reserve, so this is 0.
std::int64_t importantUsageCapacity(const std::string& path);

// The block device (a name under /sys/class/block, such as "sda2", "nvme0n1p1" or "dm-0") of
// the file system mounted at `mountPoint`, found through mountinfo; for file systems without a
// device number of their own (btrfs) through the mount's source.
std::optional<std::string> blockDeviceOfMount(const std::string& mountPoint);

// True when the disk behind `name` is solid state: its queue isn't rotational. A partition is
// judged by its disk, device-mapper and md devices by all the devices they are built on. An
// unknown device is not solid state.
bool blockDeviceIsSolidState(const std::string& name);

}  // namespace platform
