#include "platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

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

bool fileExists(const std::string& path, Follow follow) { return fileStatus(path, follow).ok(); }

bool isDirectory(const std::string& path, Follow follow) {
  auto status = fileStatus(path, follow);
  return status.ok() && status->type == FileType::directory;
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
