#include "platform/Disks.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/SystemRoots.h"

namespace platform {

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// The disk that holds partition `name`: the entry of /sys/block that has `name` inside it.
std::optional<std::string> diskOfPartition(const std::string& sys, const std::string& name) {
  auto disks = listDirectory(sys + "/block", Follow::yes);
  if (!disks.ok()) return std::nullopt;
  for (const auto& disk : *disks) {
    if (isDirectory(sys + "/block/" + disk.name + "/" + name, Follow::yes)) return disk.name;
  }
  return std::nullopt;
}

bool solidState(const std::string& sys, const std::string& name, int depth) {
  if (depth > 8 || name.empty() || name.find('/') != std::string::npos) return false;
  std::string dir = sys + "/class/block/" + name;
  if (!isDirectory(dir, Follow::yes)) return false;
  if (fileExists(dir + "/partition", Follow::yes)) {
    auto disk = diskOfPartition(sys, name);
    return disk && solidState(sys, *disk, depth + 1);
  }
  auto slaves = listDirectory(dir + "/slaves", Follow::yes);
  if (slaves.ok() && !slaves->empty()) {
    for (const auto& slave : *slaves) {
      if (!solidState(sys, slave.name, depth + 1)) return false;
    }
    return true;
  }
  auto rotational = readSmallFile(sys + "/block/" + name + "/queue/rotational");
  if (!rotational) rotational = readSmallFile(dir + "/queue/rotational");
  return rotational && trimmed(*rotational) == "0";
}

}  // namespace

std::optional<FileSystemSpace> fileSystemSpace(const std::string& path) {
  struct statvfs info;
  if (::statvfs(path.c_str(), &info) != 0) return std::nullopt;
  FileSystemSpace space;
  space.total = static_cast<std::int64_t>(info.f_blocks) * static_cast<std::int64_t>(info.f_frsize);
  space.available =
      static_cast<std::int64_t>(info.f_bavail) * static_cast<std::int64_t>(info.f_frsize);
  return space;
}

std::int64_t importantUsageCapacity(const std::string&) { return 0; }

std::optional<std::string> blockDeviceOfMount(const std::string& mountPoint) {
  auto roots = systemRoots();
  auto text = readSmallFile(roots.proc + "/self/mountinfo");
  if (!text) return std::nullopt;
  // A later line for the same point is mounted over the earlier ones.
  std::optional<MountPoint> mount;
  for (auto& m : parseMountInfo(*text)) {
    if (m.path == mountPoint) mount = std::move(m);
  }
  if (!mount) return std::nullopt;

  if (!mount->device.starts_with("0:")) {
    std::string link = roots.sys + "/dev/block/" + mount->device;
    char target[PATH_MAX];
    ssize_t n = ::readlink(link.c_str(), target, sizeof(target) - 1);
    if (n > 0) {
      target[n] = '\0';
      return lastPathComponent(target);
    }
  }
  if (mount->source.starts_with("/dev/")) {
    // Btrfs and similar report an anonymous device number; the source names the device,
    // possibly through a link such as /dev/mapper/root.
    char resolved[PATH_MAX];
    std::string name = ::realpath(mount->source.c_str(), resolved) != nullptr
                           ? lastPathComponent(resolved)
                           : lastPathComponent(mount->source);
    if (isDirectory(roots.sys + "/class/block/" + name, Follow::yes)) return name;
  }
  return std::nullopt;
}

bool blockDeviceIsSolidState(const std::string& name) {
  return solidState(systemRoots().sys, name, 0);
}

}  // namespace platform
