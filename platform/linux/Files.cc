#include "platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace platform {

std::string Error::message() const { return std::strerror(code); }

namespace {

FileType typeOfMode(mode_t mode) {
  if (S_ISREG(mode)) return FileType::regular;
  if (S_ISDIR(mode)) return FileType::directory;
  if (S_ISLNK(mode)) return FileType::symbolicLink;
  return FileType::other;
}

FileType typeOfDirent(unsigned char type) {
  switch (type) {
    case DT_REG:
      return FileType::regular;
    case DT_DIR:
      return FileType::directory;
    case DT_LNK:
      return FileType::symbolicLink;
    default:
      return FileType::other;
  }
}

FileStatus statusOf(const struct stat& st) {
  FileStatus status;
  status.type = typeOfMode(st.st_mode);
  status.size = st.st_size;
  status.allocatedSize = static_cast<std::int64_t>(st.st_blocks) * 512;
  status.device = st.st_dev;
  status.inode = st.st_ino;
  status.linkCount = st.st_nlink;
  status.mode = st.st_mode;
  status.owner = st.st_uid;
  status.modified = st.st_mtim.tv_sec;
  return status;
}

}  // namespace

namespace {
std::atomic<bool> gNoMountIdentifiers{false};
}  // namespace

void detail::setMountIdentifiersUnavailable(bool unavailable) { gNoMountIdentifiers = unavailable; }

std::uint64_t mountIdentifier(int folder, const char* name) {
  if (gNoMountIdentifiers.load(std::memory_order_relaxed)) return 0;
  struct statx status {};
  int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (name[0] == '\0' ? AT_EMPTY_PATH : 0);
  if (::statx(folder, name, flags, STATX_MNT_ID, &status) != 0 ||
      (status.stx_mask & STATX_MNT_ID) == 0) {
    return 0;
  }
  return status.stx_mnt_id;
}

Result<std::string> readRegularFile(const std::string& path, std::size_t maxBytes, Follow follow) {
  int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
  if (follow == Follow::no) flags |= O_NOFOLLOW;
  int fd = ::open(path.c_str(), flags);
  if (fd < 0) return Error{errno};
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    int code = errno;
    ::close(fd);
    return Error{code};
  }
  if (!S_ISREG(st.st_mode)) {
    ::close(fd);
    return Error{EINVAL};
  }
  if (static_cast<std::uint64_t>(st.st_size) > maxBytes) {
    ::close(fd);
    return Error{EFBIG};
  }
  std::string content;
  content.reserve(static_cast<std::size_t>(st.st_size));
  char buffer[16384];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n > 0) {
      content.append(buffer, static_cast<std::size_t>(n));
      if (content.size() > maxBytes) {  // grew while being read
        ::close(fd);
        return Error{EFBIG};
      }
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      int code = errno;
      ::close(fd);
      return Error{code};
    }
  }
  ::close(fd);
  return content;
}

Result<std::vector<DirectoryEntry>> listDirectory(const std::string& path, Follow follow) {
  int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  if (follow == Follow::no) flags |= O_NOFOLLOW;
  int fd = ::open(path.c_str(), flags);
  if (fd < 0) {
    // O_NOFOLLOW on a link gives ELOOP; to the caller the path simply isn't a directory.
    return Error{errno == ELOOP ? ENOTDIR : errno};
  }
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    int code = errno;
    ::close(fd);
    return Error{code};
  }

  std::vector<DirectoryEntry> entries;
  int statFlags = follow == Follow::no ? AT_SYMLINK_NOFOLLOW : 0;
  for (;;) {
    errno = 0;
    struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) {
      if (errno != 0) {
        int code = errno;
        ::closedir(dir);
        return Error{code};
      }
      break;
    }
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;

    DirectoryEntry item;
    item.name = name;
    struct stat st;
    if (::fstatat(fd, name, &st, statFlags) == 0) {
      item.type = typeOfMode(st.st_mode);
      item.fileSize = st.st_size;
      item.modified = st.st_mtim.tv_sec;
    } else if (errno == ENOENT && follow == Follow::no) {
      continue;  // removed since readdir
    } else if (errno == ENOENT && ::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      item.type = FileType::symbolicLink;  // a link whose target is missing
      item.fileSize = st.st_size;
      item.modified = st.st_mtim.tv_sec;
    } else if (errno == ENOENT) {
      continue;
    } else {
      item.type = typeOfDirent(entry->d_type);
    }
    entries.push_back(std::move(item));
  }
  ::closedir(dir);
  return entries;
}

Result<FileStatus> fileStatus(const std::string& path, Follow follow) {
  struct stat st;
  int rc = follow == Follow::no ? ::lstat(path.c_str(), &st) : ::stat(path.c_str(), &st);
  if (rc != 0) return Error{errno};
  return statusOf(st);
}

bool isOnReadOnlyMount(const std::string& path) {
  struct statvfs info {};
  return ::statvfs(path.c_str(), &info) == 0 && (info.f_flag & ST_RDONLY) != 0;
}

namespace {

std::atomic<bool> gNoOpenat2{false};

std::string belowRoot(const std::string& root, const std::vector<std::string>& parts) {
  std::string path = root == "/" ? "" : root;
  for (const auto& part : parts) path += "/" + part;
  return path.empty() ? "/" : path;
}

std::optional<std::string> readLink(const std::string& path) {
  std::vector<char> buffer(256);
  for (;;) {
    ssize_t length = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (length < 0) return std::nullopt;
    if (static_cast<std::size_t>(length) < buffer.size()) {
      return std::string(buffer.data(), static_cast<std::size_t>(length));
    }
    if (buffer.size() >= (1u << 20)) return std::nullopt;
    buffer.resize(buffer.size() * 2);
  }
}

// Component by component, as the kernel would: each link read and its target put in front of
// what is left, an absolute one starting again at the root.
std::optional<std::string> resolveByWalking(const std::string& root, const std::string& path,
                                            Follow follow) {
  std::vector<std::string> resolved;
  std::vector<std::string> pending = pathComponents(path);
  std::reverse(pending.begin(), pending.end());  // the next component at the back
  int links = 0;
  while (!pending.empty()) {
    std::string part = std::move(pending.back());
    pending.pop_back();
    if (part == ".") continue;
    if (part == "..") {
      if (!resolved.empty()) resolved.pop_back();
      continue;
    }
    resolved.push_back(part);
    struct stat status;
    const std::string candidate = belowRoot(root, resolved);
    if (::lstat(candidate.c_str(), &status) != 0) {
      // Missing from here on: the rest is taken as written.
      while (!pending.empty()) {
        std::string rest = std::move(pending.back());
        pending.pop_back();
        if (rest == "..") {
          if (!resolved.empty()) resolved.pop_back();
        } else if (rest != ".") {
          resolved.push_back(std::move(rest));
        }
      }
      break;
    }
    if (!S_ISLNK(status.st_mode) || (pending.empty() && follow == Follow::no)) continue;
    if (++links > 40) return std::nullopt;  // ELOOP, as the kernel counts
    auto target = readLink(candidate);
    if (!target || target->empty()) return std::nullopt;
    resolved.pop_back();
    if (target->front() == '/') resolved.clear();
    auto parts = pathComponents(*target);
    pending.insert(pending.end(), parts.rbegin(), parts.rend());
  }
  return belowRoot(root, resolved);
}

}  // namespace

void detail::setOpenat2Unavailable(bool unavailable) { gNoOpenat2 = unavailable; }

std::optional<std::string> resolveInRoot(const std::string& givenRoot, const std::string& path,
                                         Follow follow) {
  std::string root = givenRoot.empty() ? "/" : givenRoot;
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (path.find('\0') != std::string::npos) return std::nullopt;
  if (!gNoOpenat2.load(std::memory_order_relaxed)) {
    int rootFolder = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (rootFolder >= 0) {
      std::string relative = path;
      relative.erase(0, relative.find_first_not_of('/'));
      if (relative.empty()) relative = ".";
      struct open_how how {};
      how.flags = O_PATH | O_CLOEXEC | (follow == Follow::no ? O_NOFOLLOW : 0);
      how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
      int fd =
          static_cast<int>(::syscall(SYS_openat2, rootFolder, relative.c_str(), &how, sizeof(how)));
      int error = errno;
      std::optional<std::string> real;
      std::optional<std::string> realRoot;
      if (fd >= 0) {
        real = readLink("/proc/self/fd/" + std::to_string(fd));
        realRoot = readLink("/proc/self/fd/" + std::to_string(rootFolder));
        ::close(fd);
      }
      ::close(rootFolder);
      if (fd >= 0 && real && realRoot) {
        // The kernel's own answer, spelt below the root as the caller spells it.
        if (*real == *realRoot) return root;
        std::string prefix = *realRoot == "/" ? "/" : *realRoot + "/";
        if (real->starts_with(prefix)) {
          return belowRoot(root, pathComponents(real->substr(prefix.size())));
        }
      }
      if (fd < 0 && error == ELOOP) return std::nullopt;
      // Missing components, an old kernel, a sandbox that forbids the call, or no /proc: the
      // walk below does the same.
    }
  }
  return resolveByWalking(root, path, follow);
}

bool fileExists(const std::string& path, Follow follow) { return fileStatus(path, follow).ok(); }

bool isDirectory(const std::string& path, Follow follow) {
  auto status = fileStatus(path, follow);
  return status.ok() && status->type == FileType::directory;
}

std::vector<std::string> pathComponents(std::string_view path) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (end > start) parts.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

std::string joinPath(const std::string& base, const std::string& name) {
  if (base.empty()) return name;
  if (base.back() == '/') return base + name;
  return base + "/" + name;
}

std::string lastPathComponent(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  if (trimmed == "/") return "";
  auto slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string deletingLastPathComponent(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  auto slash = trimmed.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return trimmed.substr(0, slash);
}

}  // namespace platform
