#include "helper/tool/SafeDeletion.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/SystemRoots.h"

namespace helper {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::vector<std::string> componentsOf(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

// Empties and removes the folder `name` below the open folder `parent`, depth first, one open
// descriptor per level. Entries on another device than `device` are left (and so is the folder
// holding them). False when anything stays.
bool removeFolder(int parent, const std::string& name, dev_t device, const Gate& gate) {
  const std::uint64_t mount = platform::mountIdentifier(parent, name.c_str());
  struct Level {
    int fd;
    DIR* dir;
    std::string name;  // below the level above
    bool complete = true;
  };
  int top = ::openat(parent, name.c_str(), kFolderFlags);
  if (top < 0) return false;
  struct stat status;
  if (::fstat(top, &status) != 0 || status.st_dev != device) {
    ::close(top);
    return false;
  }
  DIR* topDir = ::fdopendir(top);
  if (topDir == nullptr) {
    ::close(top);
    return false;
  }
  std::vector<Level> stack{{top, topDir, name}};
  bool stopped = false;
  while (!stack.empty()) {
    Level& level = stack.back();
    if (!stopped && !gate()) stopped = true;
    errno = 0;
    struct dirent* entry = stopped ? nullptr : ::readdir(level.dir);
    if (entry == nullptr) {
      if (errno != 0) level.complete = false;
      // The level is done: close it and remove it from its parent.
      bool complete = level.complete && !stopped;
      std::string levelName = level.name;
      ::closedir(level.dir);
      stack.pop_back();
      int above = stack.empty() ? parent : stack.back().fd;
      if (!complete || ::unlinkat(above, levelName.c_str(), AT_REMOVEDIR) != 0) {
        if (!stack.empty()) stack.back().complete = false;
        if (stack.empty()) return false;
      }
      continue;
    }
    const char* child = entry->d_name;
    if (std::strcmp(child, ".") == 0 || std::strcmp(child, "..") == 0) continue;
    struct stat childStatus;
    if (::fstatat(level.fd, child, &childStatus, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) level.complete = false;
      continue;
    }
    if (!S_ISDIR(childStatus.st_mode)) {
      // Files, links (never followed), pipes, devices: the name goes.
      if (::unlinkat(level.fd, child, 0) != 0 && errno != ENOENT) level.complete = false;
      continue;
    }
    if (childStatus.st_dev != device || platform::mountIdentifier(level.fd, child) != mount) {
      level.complete = false;  // a mount point: another file system is not entered
      continue;
    }
    int fd = ::openat(level.fd, child, kFolderFlags);
    if (fd < 0) {
      // Swapped for a link (ELOOP, ENOTDIR) since it was examined: remove the name itself.
      if ((errno == ELOOP || errno == ENOTDIR) && ::unlinkat(level.fd, child, 0) == 0) continue;
      level.complete = false;
      continue;
    }
    struct stat opened;
    if (::fstat(fd, &opened) != 0 || opened.st_dev != device ||
        opened.st_ino != childStatus.st_ino) {
      ::close(fd);
      level.complete = false;
      continue;
    }
    DIR* dir = ::fdopendir(fd);
    if (dir == nullptr) {
      ::close(fd);
      level.complete = false;
      continue;
    }
    stack.push_back({fd, dir, child});
  }
  return !stopped;
}

}  // namespace

namespace {

// True when `path` is `folder` or lies below it.
bool isAtOrBelow(const std::string& path, const std::string& folder) {
  return path == folder || (path.size() > folder.size() && path.starts_with(folder) &&
                            (folder == "/" || path[folder.size()] == '/'));
}

bool isStrictlyBelow(const std::string& path, const std::string& folder) {
  return path != folder && isAtOrBelow(path, folder);
}

// A home that can be a place: absolute, of at least two plain components.
bool isPlainHome(const std::string& home) {
  if (home.empty() || home.front() != '/' || home.find('\0') != std::string::npos) return false;
  std::vector<std::string> parts = componentsOf(home);
  while (!parts.empty() && parts.back().empty()) parts.pop_back();
  if (parts.size() < 2) return false;
  for (const auto& part : parts) {
    if (part.empty() || part == "." || part == "..") return false;
  }
  return true;
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

CleanupPlaces cleanupPlacesFor(uid_t served, const std::string& home) {
  CleanupPlaces result;
  std::string servedHome = home;
  std::vector<std::string> others;
  // The first people's ids on Debian start at 1000; 65534 is nobody.
  constexpr uid_t kFirstPerson = 1000, kNobody = 65534;
  ::setpwent();
  while (struct passwd* entry = ::getpwent()) {
    if (entry->pw_dir == nullptr) continue;
    std::string dir = withoutTrailingSlash(entry->pw_dir);
    if (entry->pw_uid == served) {
      if (home.empty()) servedHome = dir;
    } else if (entry->pw_uid >= kFirstPerson && entry->pw_uid != kNobody && isPlainHome(dir)) {
      others.push_back(dir);
    }
  }
  ::endpwent();
  servedHome = withoutTrailingSlash(servedHome);
  if (isPlainHome(servedHome)) result.places.push_back(servedHome);
  for (const auto& place : kSystemCleanupPlaces) result.places.push_back(place);
  result.excluded.push_back(kHelperFolder);
  for (auto& other : others) {
    if (other != servedHome) result.otherHomes.push_back(std::move(other));
  }
  auto text = platform::readSmallFile("/proc/self/mountinfo");
  auto mounts = text ? platform::parseMountInfo(*text) : std::vector<platform::MountPoint>{};
  for (const auto& mount : mounts) result.mountPoints.insert(mount.path);
  // The user's trash on other file systems, as the desktop's trash keeps it.
  for (const auto& files : platform::mountTrashFolders(mounts, served)) {
    result.places.push_back(platform::deletingLastPathComponent(files));
  }
  return result;
}

std::optional<std::string> refusal(const std::string& path, const CleanupPlaces& places) {
  if (path.find('\0') != std::string::npos) return "a path holding a NUL byte";
  if (path.empty() || path.front() != '/') return "not an absolute path";
  if (path == "/") return "the root folder";
  for (const auto& part : componentsOf(path)) {
    if (part.empty() || part == "." || part == "..") {
      return "a path with an empty, \".\" or \"..\" component";
    }
  }
  for (const auto& folder : places.excluded) {
    if (isAtOrBelow(path, folder) || isAtOrBelow(folder, path)) return "the helper's own folder";
  }
  for (const auto& other : places.otherHomes) {
    if (isAtOrBelow(path, other) || isAtOrBelow(other, path)) return "another person's home";
  }
  bool inPlace = false;
  for (const auto& place : places.places) inPlace |= isStrictlyBelow(path, place);
  if (!inPlace) return "outside the places the helper cleans";
  if (places.mountPoints.count(path) > 0) return "the mount point of a file system";
  return std::nullopt;
}

bool deleteTree(const std::string& path, const Gate& gate) {
  std::vector<std::string> parts = componentsOf(path);
  if (parts.empty()) return false;
  // The folder that holds the path, reached without following any link.
  int parent = ::open("/", kFolderFlags);
  for (std::size_t i = 0; parent >= 0 && i + 1 < parts.size(); ++i) {
    int next = ::openat(parent, parts[i].c_str(), kFolderFlags);
    ::close(parent);
    parent = next;
  }
  if (parent < 0) return false;
  const std::string& name = parts.back();
  struct stat status;
  bool gone;
  if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    gone = errno == ENOENT;  // nothing left to delete
  } else if (S_ISDIR(status.st_mode)) {
    gone = removeFolder(parent, name, status.st_dev, gate);
  } else {
    gone = ::unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT;
  }
  ::close(parent);
  return gone;
}

}  // namespace helper
