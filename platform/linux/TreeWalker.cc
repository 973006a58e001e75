#include "platform/TreeWalker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/Files.h"
#include "platform/linux/Dirent.h"

namespace platform {

namespace {

// Folders kept open at once, at most: one per level of the walk while the process's descriptor
// limit allows (half of it, leaving the rest to the caller); deeper folders close the shallowest.
constexpr std::size_t kMaxOpenFolders = 4096;

std::size_t folderBudget() {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return kMaxOpenFolders;
  }
  return std::clamp<std::size_t>(static_cast<std::size_t>(limit.rlim_cur / 2), 2, kMaxOpenFolders);
}

bool outOfDescriptors(int code) { return code == EMFILE || code == ENFILE; }

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct Frame {
  int fd = -1;  // -1 once closed to make room
  dev_t device = 0;
  ino_t inode = 0;
  std::string name;                  // component below the parent frame
  std::size_t pathLength = 0;        // length of the folder's path in the walker's path
  std::vector<std::string> folders;  // subfolders still to enter
  std::size_t next = 0;
};

class Walker {
 public:
  // Walks `name` below the folder `base` (AT_FDCWD and the root's path for a walk by path).
  Walker(int base, const std::string& name, const std::string& root, WalkVisitor& visitor,
         const WalkOptions& options)
      : base_(base),
        baseName_(name),
        root_(root),
        visitor_(visitor),
        options_(options),
        buffer_(new char[kBufferSize]),
        budget_(std::max<std::size_t>(2, folderBudget() / std::max(1u, options.share))) {}

  ~Walker() {
    for (auto& frame : stack_) closeFrame(frame);
  }

  bool run() {
    struct stat status;
    if (::fstatat(base_, baseName_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      visitor_.error(root_, errno);
      return false;
    }
    if (!S_ISDIR(status.st_mode)) {
      reportEntry(base_, "", root_, status);
      return true;
    }
    int fd = openFolder(base_, baseName_.c_str());
    if (fd < 0) {
      if (errno == ENOTDIR || errno == ELOOP) {
        // Swapped for something else since it was examined: that is what there is.
        if (::fstatat(base_, baseName_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            !S_ISDIR(status.st_mode)) {
          reportEntry(base_, "", root_, status);
          return true;
        }
      }
      visitor_.error(root_, errno);
      return false;
    }
    rootDevice_ = status.st_dev;
    rootMount_ = mountIdentifier(base_, baseName_.c_str());
    path_ = root_;
    push(fd, status, baseName_);
    while (!stack_.empty() && !stopped()) {
      Frame& top = stack_.back();
      if (top.next == top.folders.size()) {
        leave();
        continue;
      }
      std::string name = std::move(top.folders[top.next++]);
      enter(name);
    }
    return true;
  }

 private:
  static constexpr std::size_t kBufferSize = 64 * 1024;

  bool stopped() {
    if (stopped_) return true;
    stopped_ = (options_.stop != nullptr && options_.stop->load(std::memory_order_relaxed)) ||
               (options_.goOn && !options_.goOn());
    return stopped_;
  }

  // The root's entry is given with the path of no folder, as `entry` promises.
  void reportEntry(int folder, const std::string& folderPath, std::string_view name,
                   const struct stat& status) {
    visitor_.entryAt(folder, folderPath, name, status);
  }

  void closeFrame(Frame& frame) {
    if (frame.fd >= 0) {
      ::close(frame.fd);
      frame.fd = -1;
      --open_;
    }
  }

  // Pops the finished folder on top. When the folder below it was closed to make room, it is
  // reopened as ".." of the finished one, checked by device and inode: going back up a deep tree
  // then costs one open per level, not a walk down from the root for each.
  void leave() {
    Frame& done = stack_.back();
    if (stack_.size() >= 2 && stack_[stack_.size() - 2].fd < 0 && done.fd >= 0) {
      if (options_.statistics != nullptr) ++options_.statistics->folderOpens;
      int parent = ::openat(done.fd, "..", kFolderFlags);
      closeFrame(done);
      if (parent >= 0 && sameFolder(parent, stack_[stack_.size() - 2])) {
        stack_[stack_.size() - 2].fd = parent;
        ++open_;
      } else if (parent >= 0) {
        ::close(parent);
      }
    } else {
      closeFrame(done);
    }
    std::string name = std::move(done.name);
    stack_.pop_back();
    if (stack_.empty()) {
      if (!stopped()) visitor_.leftFolder(base_, "", name);
      return;
    }
    path_.resize(stack_.back().pathLength);
    if (stopped()) return;
    int parent = descriptor(stack_.size() - 1);
    if (parent >= 0) {
      visitor_.leftFolder(parent, path_, name);
    } else {
      visitor_.error(path_, outOfDescriptors(errno) ? errno : ENOENT);
    }
  }

  // The descriptor of the frame at `index`, reopening it when it was closed to make room: from
  // the nearest ancestor that is still open, each folder on the way checked by device and inode
  // and kept open while the budget allows.
  int descriptor(std::size_t index) {
    if (stack_[index].fd >= 0) return stack_[index].fd;
    std::size_t base = index;
    while (base > 0 && stack_[base].fd < 0) --base;
    int fd = stack_[base].fd;
    if (fd < 0) {  // even the root was closed
      fd = openFolder(base_, baseName_.c_str());
      if (fd < 0 || !sameFolder(fd, stack_[0])) return closeAndFail(fd);
      adopt(0, fd);
    }
    for (std::size_t i = base + 1; i <= index; ++i) {
      int next = openFolder(fd, stack_[i].name.c_str());
      if (next < 0 || !sameFolder(next, stack_[i])) return closeAndFail(next);
      adopt(i, next);
      fd = next;
    }
    return fd;
  }

  // Gives the frame at `index` its reopened descriptor, keeping the frames below `index` only
  // while there is room (the one asked for always stays).
  void adopt(std::size_t index, int fd) {
    stack_[index].fd = fd;
    ++open_;
    makeRoom(index);
  }

  // `openat` of a folder that makes room and tries again when the process is out of descriptors.
  int openFolder(int at, const char* name) {
    for (;;) {
      if (options_.statistics != nullptr) ++options_.statistics->folderOpens;
      int fd = ::openat(at, name, kFolderFlags);
      if (fd >= 0 || !outOfDescriptors(errno)) return fd;
      if (!closeShallowest(stack_.size(), at)) {
        errno = EMFILE;
        return -1;
      }
    }
  }
  // Whether the folder `name` below `parent` lies on the root's mount: the same device, and the
  // same mount id where the kernel tells it (a bind mount of the same file system has another).
  bool onRootMount(int parent, const std::string& name) const {
    struct stat status;
    if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return true;
    if (status.st_dev != rootDevice_) return false;
    std::uint64_t mount = mountIdentifier(parent, name.c_str());
    return rootMount_ == 0 || mount == 0 || mount == rootMount_;
  }

  static bool sameFolder(int fd, const Frame& frame) {
    struct stat status;
    return ::fstat(fd, &status) == 0 && status.st_dev == frame.device &&
           status.st_ino == frame.inode;
  }

  static int closeAndFail(int fd) {
    if (fd >= 0) ::close(fd);
    return -1;
  }

  // Closes the shallowest open folders while the budget is spent. The folder on top of the stack
  // and the one at `keep` are never closed, so the walk always has its current folder at hand.
  void makeRoom(std::size_t keep = SIZE_MAX) {
    while (open_ > budget_) {
      if (!closeShallowest(keep)) return;
    }
  }

  // Closes the shallowest open folder other than the top, `keep` and the descriptor `inUse`;
  // false when there is none.
  bool closeShallowest(std::size_t keep, int inUse = -1) {
    for (std::size_t i = 0; i + 1 < stack_.size(); ++i) {
      if (i != keep && stack_[i].fd >= 0 && stack_[i].fd != inUse) {
        closeFrame(stack_[i]);
        return true;
      }
    }
    return false;
  }

  void enter(const std::string& name) {
    std::size_t parentIndex = stack_.size() - 1;
    // The path of the folder on top is `path_`; the child's is made by appending to it, and
    // taken back when the child isn't entered, so a deep tree costs no copies of long paths.
    const std::size_t parentLength = path_.size();
    int parent = descriptor(parentIndex);
    if (path_.back() != '/') path_ += '/';
    path_ += name;
    if (parent < 0) {
      // The folder above was moved or removed meanwhile, or no descriptor could be had.
      visitor_.error(path_, outOfDescriptors(errno) ? errno : ENOENT);
      path_.resize(parentLength);
      return;
    }
    if (options_.stayOnMount && !onRootMount(parent, name)) {
      visitor_.error(path_, EXDEV);
      path_.resize(parentLength);
      return;
    }
    int fd = openFolder(parent, name.c_str());
    if (fd < 0) {
      int code = errno;
      path_.resize(parentLength);
      struct stat status;
      if ((code == ENOTDIR || code == ELOOP) &&
          ::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
          !S_ISDIR(status.st_mode)) {
        // Replaced by something that isn't a folder since it was listed: that is the entry.
        reportEntry(parent, path_, name, status);
      } else if (code != ENOTDIR && code != ELOOP && code != ENOENT) {
        if (path_.back() != '/') path_ += '/';
        path_ += name;
        visitor_.error(path_, code);
        path_.resize(parentLength);
      }
      return;
    }
    struct stat status;
    if (::fstat(fd, &status) != 0) {
      visitor_.error(path_, errno);
      ::close(fd);
      path_.resize(parentLength);
      return;
    }
    bool wanted = !(options_.stayOnFileSystem && status.st_dev != rootDevice_);
    if (options_.stayOnMount && status.st_dev != rootDevice_) {
      // Mounted there between the check and the open.
      visitor_.error(path_, EXDEV);
      wanted = false;
    }
    if (wanted) {
      // The visitor is given the parent's path, as for entries.
      path_.resize(parentLength);
      wanted = visitor_.enterFolder(path_, name, status);
      if (wanted) {
        if (path_.back() != '/') path_ += '/';
        path_ += name;
      }
    }
    if (!wanted) {
      ::close(fd);
      path_.resize(parentLength);
      return;
    }
    push(fd, status, name);
    makeRoom();
  }

  void push(int fd, const struct stat& status, std::string name) {
    stack_.push_back(Frame{fd, status.st_dev, status.st_ino, std::move(name), path_.size(), {}, 0});
    ++open_;
    list(stack_.back());
  }

  // Reads every entry of the folder on top of the stack: reports non-folders to the visitor and
  // keeps the names of subfolders for later.
  void list(Frame& frame) {
    for (;;) {
      long n = ::syscall(SYS_getdents64, frame.fd, buffer_.get(), kBufferSize);
      if (n == 0) break;
      if (n < 0) {
        if (errno == EINTR) continue;
        visitor_.error(path_, errno);
        break;
      }
      for (long offset = 0; offset < n;) {
        auto* entry = reinterpret_cast<LinuxDirent64*>(buffer_.get() + offset);
        offset += entry->d_reclen;
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
        if (stopped()) return;
        visit(frame, name, entry->d_type);
      }
    }
  }

  void visit(Frame& frame, const char* name, unsigned char type) {
    if (type == DT_DIR) {
      frame.folders.emplace_back(name);
      return;
    }
    struct stat status;
    if (type == DT_UNKNOWN || options_.statEntries) {
      if (::fstatat(frame.fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) visitor_.error(path_ + "/" + name, errno);
        return;  // ENOENT: removed since it was listed
      }
      if (S_ISDIR(status.st_mode)) {
        frame.folders.emplace_back(name);
        return;
      }
    } else {
      std::memset(&status, 0, sizeof(status));
      status.st_mode = DTTOIF(type);
    }
    reportEntry(frame.fd, path_, name, status);
  }

  const int base_;
  const std::string baseName_;
  const std::string root_;
  WalkVisitor& visitor_;
  const WalkOptions options_;
  std::unique_ptr<char[]> buffer_;
  std::vector<Frame> stack_;
  std::string path_;  // the path of the folder on top of the stack
  std::size_t open_ = 0;
  const std::size_t budget_;
  dev_t rootDevice_ = 0;
  std::uint64_t rootMount_ = 0;
  bool stopped_ = false;
};

}  // namespace

bool walkTree(const std::string& root, WalkVisitor& visitor, const WalkOptions& options) {
  return Walker(AT_FDCWD, root, root, visitor, options).run();
}

bool walkTreeAt(int parent, const std::string& name, const std::string& path, WalkVisitor& visitor,
                const WalkOptions& options) {
  return Walker(parent, name, path, visitor, options).run();
}

}  // namespace platform
