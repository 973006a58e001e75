#include "platform/TreeDeletion.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/Files.h"
#include "platform/TreeWalker.h"
#include "platform/linux/Dirent.h"

namespace platform {

namespace {

constexpr int kPathFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
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
  // `failedAnywhere`, when given, is shared with the removers of other threads: a failure in
  // one ends them all when the first failure ends the work.
  Remover(const std::string& path, const std::string& name, const TreeDeletionOptions& options,
          TreeDeletion& result, std::atomic<bool>* failedAnywhere = nullptr)
      : path_(path),
        name_(name),
        options_(options),
        result_(result),
        failedAnywhere_(failedAnywhere) {}

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
    if (options_.stopAtFirstFailure &&
        (failed_ || (failedAnywhere_ != nullptr && failedAnywhere_->load()))) {
      return false;
    }
    if (options_.goOn && !options_.goOn()) {
      result_.interrupted = true;
      return false;
    }
    return true;
  }

 private:
  void fail(const std::string& path, int code) {
    failed_ = true;
    if (failedAnywhere_ != nullptr) failedAnywhere_->store(true);
    if (result_.error != 0) return;
    result_.error = code;
    result_.failedPath = path;
  }

  const std::string& path_;
  const std::string& name_;
  const TreeDeletionOptions& options_;
  TreeDeletion& result_;
  std::atomic<bool>* failedAnywhere_;
  bool failed_ = false;
};

// Deletes the folder `name` of `parent` by removers walking each of its subfolders.
void removeByWalk(int parent, const std::string& name, const std::string& path,
                  const TreeDeletionOptions& options, TreeDeletion& result,
                  std::atomic<bool>* failedAnywhere = nullptr, unsigned share = 1) {
  Remover remover(path, name, options, result, failedAnywhere);
  WalkOptions walk;
  walk.statEntries = false;
  walk.stayOnMount = true;
  walk.share = share;
  walk.goOn = [&remover] { return remover.goOn(); };
  walkTreeAt(parent, name, path, remover, walk);
}

// A folder deleted by several threads. Its first levels are listed here and their other entries
// unlinked until there are subfolders enough for the threads to share; each of those is then
// deleted whole by one thread, as one walk deletes a folder, and the listed folders go last,
// deepest first. Subfolders are opened with O_NOFOLLOW from their listed folder's descriptor,
// kept open until the end, and checked to lie on the folder's own mount.
class SharedRemoval {
 public:
  SharedRemoval(int parent, const std::string& name, const std::string& path,
                const struct stat& status, const TreeDeletionOptions& options, TreeDeletion& result)
      : parent_(parent), status_(status), options_(options), result_(result) {
    folders_.push_back({-1, kAbove, name, path});
    mount_ = mountIdentifier(parent, name.c_str());
    // Each thread's walk calls these; the caller's functions see one call at a time.
    shared_ = options;
    if (options.goOn) {
      shared_.goOn = [this] {
        std::lock_guard<std::mutex> lock(callbacks_);
        return options_.goOn();
      };
    }
    if (options.current) {
      shared_.current = [this](const std::string& folder, std::string_view entry) {
        std::lock_guard<std::mutex> lock(callbacks_);
        options_.current(folder, entry);
      };
    }
  }

  ~SharedRemoval() {
    for (auto& folder : folders_) {
      if (folder.fd >= 0) ::close(folder.fd);
    }
  }

  // False when the folder couldn't be opened as the one examined: the caller then deletes it
  // by one walk, which tells what it has become.
  bool run() {
    int fd = ::openat(parent_, folders_[0].name.c_str(), kFolderFlags);
    struct stat opened;
    if (fd < 0 || ::fstat(fd, &opened) != 0 || opened.st_dev != status_.st_dev ||
        opened.st_ino != status_.st_ino) {
      if (fd >= 0) ::close(fd);
      return false;
    }
    folders_[0].fd = fd;
    list(0);
    const std::size_t enough = std::size_t{4} * options_.threads;
    for (int level = 1; level < kListedLevels && !subtrees_.empty() && subtrees_.size() < enough;
         ++level) {
      std::vector<Subtree> below = std::move(subtrees_);
      subtrees_.clear();
      for (const auto& subtree : below) {
        if (!goOn()) return true;
        open(subtree);
      }
    }
    if (!goOn()) return true;
    share();
    if (result_.interrupted || (options_.stopAtFirstFailure && failed_.load())) return true;
    for (std::size_t i = folders_.size(); i-- > 0;) {
      Folder& folder = folders_[i];
      ::close(folder.fd);
      folder.fd = -1;
      const int holder = folder.holder == kAbove ? parent_ : folders_[folder.holder].fd;
      const std::string& holderPath =
          folder.holder == kAbove ? std::string() : folders_[folder.holder].path;
      if (options_.current) options_.current(holderPath, i == 0 ? folder.path : folder.name);
      if (::unlinkat(holder, folder.name.c_str(), AT_REMOVEDIR) == 0) {
        ++result_.removed;
      } else if (errno != ENOENT && result_.error == 0) {
        fail(folder.path, errno);
      }
    }
    return true;
  }

 private:
  static constexpr std::size_t kAbove = SIZE_MAX;  // the holder of the folder being deleted
  static constexpr int kListedLevels = 3;
  static constexpr std::size_t kBufferSize = 64 * 1024;

  struct Folder {
    int fd;
    std::size_t holder;  // index of the listed folder that holds it
    std::string name;
    std::string path;
  };
  struct Subtree {
    std::size_t holder;
    std::string name;
  };

  bool goOn() {
    if (options_.stopAtFirstFailure && failed_.load()) return false;
    if (options_.goOn && !options_.goOn()) {
      result_.interrupted = true;
      return false;
    }
    return true;
  }

  void fail(const std::string& path, int code) {
    failed_.store(true);
    if (result_.error != 0) return;
    result_.error = code;
    result_.failedPath = path;
  }

  // Lists the folder at `index`: its subfolders are kept, everything else is unlinked.
  void list(std::size_t index) {
    auto buffer = std::make_unique<char[]>(kBufferSize);
    const int fd = folders_[index].fd;
    for (;;) {
      long n = ::syscall(SYS_getdents64, fd, buffer.get(), kBufferSize);
      if (n == 0) return;
      if (n < 0) {
        if (errno == EINTR) continue;
        return fail(folders_[index].path, errno);
      }
      for (long offset = 0; offset < n;) {
        auto* entry = reinterpret_cast<LinuxDirent64*>(buffer.get() + offset);
        offset += entry->d_reclen;
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
        if (!goOn()) return;
        bool folder = entry->d_type == DT_DIR;
        struct stat status;
        if (entry->d_type == DT_UNKNOWN && ::fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
          folder = S_ISDIR(status.st_mode);
        }
        if (folder) {
          subtrees_.push_back({index, name});
        } else {
          unlink(index, name);
        }
      }
    }
  }

  // Unlinks the entry `name` of the listed folder at `index`, whatever it is.
  void unlink(std::size_t index, const std::string& name) {
    const Folder& folder = folders_[index];
    if (options_.current) options_.current(folder.path, name);
    if (::unlinkat(folder.fd, name.c_str(), 0) == 0) {
      ++result_.removed;
    } else if (errno != ENOENT) {
      fail(folder.path + "/" + name, errno);
    }
  }

  // Whether the entry `name` of `holder` is a folder on the mount of the folder being deleted;
  // EXDEV when it is one on another mount.
  int examine(int holder, const std::string& name, struct stat& status) const {
    if (::fstatat(holder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    if (!S_ISDIR(status.st_mode)) return ENOTDIR;
    const std::uint64_t mount = mountIdentifier(holder, name.c_str());
    if (status.st_dev != status_.st_dev || (mount_ != 0 && mount != 0 && mount != mount_)) {
      return EXDEV;
    }
    return 0;
  }

  // Opens a subfolder to list it in turn.
  void open(const Subtree& subtree) {
    const Folder& holder = folders_[subtree.holder];
    const std::string path = holder.path + "/" + subtree.name;
    struct stat status;
    int code = examine(holder.fd, subtree.name, status);
    int fd = code == 0 ? ::openat(holder.fd, subtree.name.c_str(), kFolderFlags) : -1;
    if (fd < 0 && code == 0) code = errno;
    struct stat opened;
    if (fd >= 0 && (::fstat(fd, &opened) != 0 || opened.st_dev != status.st_dev ||
                    opened.st_ino != status.st_ino)) {
      ::close(fd);
      fd = -1;
      code = EXDEV;  // mounted there, or swapped, since it was examined
    }
    if (fd >= 0) {
      folders_.push_back({fd, subtree.holder, subtree.name, path});
      return list(folders_.size() - 1);
    }
    if (code == ENOTDIR || code == ELOOP) return unlink(subtree.holder, subtree.name);
    if (code != ENOENT) fail(path, code);
  }

  // Deletes the subfolders kept, one thread each at a time, until none is left.
  void share() {
    std::atomic<std::size_t> next{0};
    std::mutex merge;
    auto work = [&] {
      TreeDeletion mine;
      for (std::size_t i; (i = next++) < subtrees_.size();) {
        const Subtree& subtree = subtrees_[i];
        const Folder& holder = folders_[subtree.holder];
        const std::string path = holder.path + "/" + subtree.name;
        struct stat status;
        int code = examine(holder.fd, subtree.name, status);
        if (code == 0 || code == ENOTDIR) {
          // What is no folder any more goes as the entry it has become.
          removeByWalk(holder.fd, subtree.name, path, shared_, mine, &failed_, options_.threads);
        } else if (code != ENOENT) {
          if (mine.error == 0) mine = {code, path, false, mine.removed};
          failed_.store(true);
        }
        if (mine.interrupted || (options_.stopAtFirstFailure && failed_.load())) break;
      }
      std::lock_guard<std::mutex> lock(merge);
      result_.removed += mine.removed;
      result_.interrupted = result_.interrupted || mine.interrupted;
      if (result_.error == 0 && mine.error != 0) {
        result_.error = mine.error;
        result_.failedPath = std::move(mine.failedPath);
      }
    };
    std::vector<std::thread> helpers;
    const std::size_t wanted = std::min<std::size_t>(options_.threads, subtrees_.size());
    for (std::size_t i = 1; i < wanted; ++i) {
      try {
        helpers.emplace_back(work);
      } catch (const std::system_error&) {
        break;  // a thread that can't be made leaves its share to the others
      }
    }
    work();
    for (auto& helper : helpers) helper.join();
  }

  const int parent_;
  const struct stat status_;
  const TreeDeletionOptions& options_;
  TreeDeletionOptions shared_;
  TreeDeletion& result_;
  std::uint64_t mount_ = 0;
  std::vector<Folder> folders_;    // listed, each after the one that holds it
  std::vector<Subtree> subtrees_;  // left for the threads
  std::atomic<bool> failed_{false};
  std::mutex callbacks_;
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
  if (!options.guard) {
    // Most paths of a long list are files: unlinked at once, without examining them first
    // (unlinkat without AT_REMOVEDIR never removes a folder).
    if (options.current) options.current("", path);
    if (::unlinkat(parent, name.c_str(), 0) == 0) {
      result.removed = 1;
      return result;
    }
    if (errno == ENOENT) return result;
    // A folder, or a failure that examining the entry tells better (a folder the user may not
    // remove from its parent fails with EACCES before EISDIR).
  }
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
  if (options.threads > 1 && SharedRemoval(parent, name, path, status, options, result).run()) {
    return result;
  }
  removeByWalk(parent, name, path, options, result);
  return result;
}

}  // namespace platform
