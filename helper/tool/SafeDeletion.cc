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
#include "platform/TreeDeletion.h"

namespace helper {

namespace {

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
  platform::TreeDeletionOptions options;
  options.parentLinks = platform::ParentLinks::none;
  options.goOn = gate;
  platform::TreeDeletion outcome = platform::deleteTree(path, options);
  return outcome.error == 0 && !outcome.interrupted;
}

}  // namespace helper
