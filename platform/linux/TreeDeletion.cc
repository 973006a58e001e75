#include "platform/TreeDeletion.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <vector>

#include "platform/Files.h"
#include "platform/TreeWalker.h"

namespace platform {

namespace {

constexpr int kPathFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kMaxLinks = 40;  // as the kernel's own limit on links in one lookup

std::deque<std::string> componentsOf(std::string_view path) {
  auto parts = pathComponents(path);
  return {std::make_move_iterator(parts.begin()), std::make_move_iterator(parts.end())};
}

bool isTrustedOwner(uid_t owner) { return owner == 0 || owner == ::geteuid(); }

// Whether the link `name` in `folder` is one that no one else could have put there.
bool isTrustedLink(int folder, const struct stat& link) {
  struct stat holder;
  if (!isTrustedOwner(link.st_uid) || ::fstat(folder, &holder) != 0) return false;
  return isTrustedOwner(holder.st_uid) &&
         ((holder.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (holder.st_mode & S_ISVTX) != 0);
}

int failWith(int fd, int code) {
  if (fd >= 0) ::close(fd);
  errno = code;
  return -1;
}

// Removes every entry a walk reaches, children before their folder.
class Remover final : public WalkVisitor {
 public:
  Remover(const std::string& path, const std::string& name, const TreeDeletionOptions& options,
          TreeDeletion& result)
      : path_(path), name_(name), options_(options), result_(result) {}

  void entry(const std::string&, std::string_view, const struct stat&) override {}

  void entryAt(int folder, const std::string& folderPath, std::string_view name,
               const struct stat&) override {
    // Whatever the listing said the entry is, a name that isn't a folder goes with unlinkat.
    const bool isRoot = folderPath.empty();
    if (options_.current) options_.current(folderPath, isRoot ? std::string_view(path_) : name);
    std::string child(isRoot ? std::string_view(name_) : name);
    if (::unlinkat(folder, child.c_str(), 0) == 0) {
      ++result_.removed;
    } else if (errno != ENOENT) {
      fail(isRoot ? path_ : folderPath + "/" + child, errno);
    }
  }

  void leftFolder(int parent, const std::string& parentPath, std::string_view name) override {
    std::string child(name);
    if (options_.current) {
      options_.current(parentPath, parentPath.empty() ? std::string_view(path_) : name);
    }
    if (::unlinkat(parent, child.c_str(), AT_REMOVEDIR) == 0) {
      ++result_.removed;
    } else if (errno != ENOENT && result_.error == 0) {
      // A folder that still holds what failed inside is no failure of its own.
      fail(parentPath.empty() ? path_ : parentPath + "/" + child, errno);
    }
  }

  void error(const std::string& path, int code) override { fail(path, code); }

  // False once the walk must end: asked to, or stopping at a failure.
  bool goOn() {
    if (failed_ && options_.stopAtFirstFailure) return false;
    if (options_.goOn && !options_.goOn()) {
      result_.interrupted = true;
      return false;
    }
    return true;
  }

 private:
  void fail(const std::string& path, int code) {
    failed_ = true;
    if (result_.error != 0) return;
    result_.error = code;
    result_.failedPath = path;
  }

  const std::string& path_;
  const std::string& name_;
  const TreeDeletionOptions& options_;
  TreeDeletion& result_;
  bool failed_ = false;
};

}  // namespace

int openParentFolder(const std::string& path, ParentLinks links, std::string& name) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
    return failWith(-1, EINVAL);
  }
  std::deque<std::string> parts = componentsOf(path);
  // The item itself must be named: not "/", nor "." or ".." of something.
  if (parts.empty() || parts.back() == "." || parts.back() == "..") return failWith(-1, EINVAL);
  for (const auto& part : parts) {
    if (part == "..") return failWith(-1, EINVAL);
  }
  name = parts.back();
  parts.pop_back();
  int fd = ::open("/", kPathFlags);
  int links_followed = 0;
  while (fd >= 0 && !parts.empty()) {
    std::string part = std::move(parts.front());
    parts.pop_front();
    if (part == ".") continue;
    int next = ::openat(fd, part.c_str(), kPathFlags);
    if (next >= 0) {
      ::close(fd);
      fd = next;
      continue;
    }
    int code = errno;
    struct stat status;
    if ((code != ELOOP && code != ENOTDIR) ||
        ::fstatat(fd, part.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISLNK(status.st_mode)) {
      return failWith(fd, code);
    }
    if (links == ParentLinks::none || !isTrustedLink(fd, status) || ++links_followed > kMaxLinks) {
      return failWith(fd, ELOOP);
    }
    std::vector<char> target(static_cast<std::size_t>(std::max<off_t>(status.st_size, 255)) + 1);
    ssize_t length = ::readlinkat(fd, part.c_str(), target.data(), target.size());
    if (length <= 0 || static_cast<std::size_t>(length) >= target.size()) {
      return failWith(fd, ELOOP);
    }
    std::string_view to(target.data(), static_cast<std::size_t>(length));
    // The link's own components go first; an absolute target starts again from "/". Its ".."
    // steps are those of a link that no one else could have made, and are taken as they stand.
    std::deque<std::string> through = componentsOf(to);
    parts.insert(parts.begin(), through.begin(), through.end());
    if (to.front() == '/') {
      ::close(fd);
      fd = ::open("/", kPathFlags);
    }
  }
  return fd;
}

ParentFolderCache::~ParentFolderCache() {
  if (fd_ >= 0) ::close(fd_);
}

void ParentFolderCache::keep(const std::string& folder, int fd) {
  if (fd_ >= 0 && fd_ != fd) ::close(fd_);
  folder_ = folder;
  fd_ = fd;
}

TreeDeletion deleteTree(const std::string& path, const TreeDeletionOptions& options) {
  TreeDeletion result;
  auto fail = [&](int code) {
    result.error = code;
    result.failedPath = path;
    return result;
  };
  std::string name;
  const std::string folder = deletingLastPathComponent(path);
  int parent = options.parents != nullptr ? options.parents->find(folder) : -1;
  if (parent >= 0) {
    name = lastPathComponent(path);
    if (name.empty() || name == "." || name == ".." || path.find('\0') != std::string::npos) {
      parent = openParentFolder(path, options.parentLinks, name);  // which refuses it
    }
  } else {
    parent = openParentFolder(path, options.parentLinks, name);
  }
  if (parent < 0) {
    // A folder above that isn't there takes the item with it: nothing is left to delete.
    if (errno == ENOENT) return result;
    return fail(errno);
  }
  struct CloseParent {
    int fd;
    ParentFolderCache* cache;
    const std::string& folder;
    ~CloseParent() {
      if (cache == nullptr) {
        ::close(fd);
      } else if (cache->find(folder) != fd) {
        cache->keep(folder, fd);
      }
    }
  } closer{parent, options.parents, folder};
  struct stat status;
  if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? result : fail(errno);
  }
  if (options.guard) {
    if (int refused = options.guard(path, parent, name, status); refused != 0) return fail(refused);
  }
  if (!S_ISDIR(status.st_mode)) {
    if (options.current) options.current("", path);
    if (::unlinkat(parent, name.c_str(), 0) == 0) {
      result.removed = 1;
      return result;
    }
    return errno == ENOENT ? result : fail(errno);
  }
  // A file system's root is not deleted from here, as one found inside isn't.
  struct stat holder;
  const std::uint64_t parentMount = mountIdentifier(parent, ""),
                      mount = mountIdentifier(parent, name.c_str());
  if (::fstat(parent, &holder) != 0) return fail(errno);
  if (holder.st_dev != status.st_dev || (parentMount != 0 && mount != 0 && parentMount != mount)) {
    return fail(EBUSY);
  }
  Remover remover(path, name, options, result);
  WalkOptions walk;
  walk.statEntries = false;
  walk.stayOnMount = true;
  walk.goOn = [&remover] { return remover.goOn(); };
  walkTreeAt(parent, name, path, remover, walk);
  return result;
}

}  // namespace platform
