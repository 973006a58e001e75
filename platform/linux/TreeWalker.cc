#include "platform/TreeWalker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace platform {

namespace {

// Folders kept open at once; deeper folders close the shallowest.
constexpr std::size_t kMaxOpenFolders = 64;

struct LinuxDirent64 {
  ino64_t d_ino;
  off64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[];
};

struct Frame {
  int fd = -1;  // -1 once closed to make room
  dev_t device = 0;
  ino_t inode = 0;
  std::string name;                  // component below the parent frame
  std::string path;                  // full path of the folder
  std::vector<std::string> folders;  // subfolders still to enter
  std::size_t next = 0;
};

class Walker {
 public:
  Walker(const std::string& root, WalkVisitor& visitor, const WalkOptions& options)
      : root_(root), visitor_(visitor), options_(options), buffer_(new char[kBufferSize]) {}

  ~Walker() {
    for (auto& frame : stack_) closeFrame(frame);
  }

  bool run() {
    struct stat status;
    if (::lstat(root_.c_str(), &status) != 0) {
      visitor_.error(root_, errno);
      return false;
    }
    if (!S_ISDIR(status.st_mode)) {
      visitor_.entry("", root_, status);
      return true;
    }
    int fd = ::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
      visitor_.error(root_, errno);
      return false;
    }
    rootDevice_ = status.st_dev;
    push(fd, status, root_, root_);
    while (!stack_.empty() && !stopped()) {
      Frame& top = stack_.back();
      if (top.next == top.folders.size()) {
        closeFrame(top);
        stack_.pop_back();
        continue;
      }
      std::string name = std::move(top.folders[top.next++]);
      enter(name);
    }
    return true;
  }

 private:
  static constexpr std::size_t kBufferSize = 64 * 1024;

  bool stopped() const {
    return options_.stop != nullptr && options_.stop->load(std::memory_order_relaxed);
  }

  void closeFrame(Frame& frame) {
    if (frame.fd >= 0) {
      ::close(frame.fd);
      frame.fd = -1;
      --open_;
    }
  }

  // The descriptor of the frame at `index`, reopening it (and the closed frames above it) from
  // the nearest open ancestor when it was closed to make room.
  int descriptor(std::size_t index) {
    if (stack_[index].fd >= 0) return stack_[index].fd;
    std::size_t base = index;
    while (base > 0 && stack_[base].fd < 0) --base;
    int fd = stack_[base].fd;
    bool owned = false;
    if (fd < 0) {  // even the root was closed
      fd = ::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      owned = true;
      if (fd < 0 || !sameFolder(fd, stack_[0])) return closeAndFail(fd);
    }
    for (std::size_t i = base + 1; i <= index; ++i) {
      int next =
          ::openat(fd, stack_[i].name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (owned) ::close(fd);
      if (next < 0 || !sameFolder(next, stack_[i])) return closeAndFail(next);
      fd = next;
      owned = true;
    }
    makeRoom();
    stack_[index].fd = fd;
    ++open_;
    return fd;
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

  // Closes the shallowest open folder when the budget is spent. The folder on top of the stack
  // is never closed, so the walk always has its current folder at hand.
  void makeRoom() {
    if (open_ < kMaxOpenFolders) return;
    for (std::size_t i = 0; i + 1 < stack_.size(); ++i) {
      if (stack_[i].fd >= 0) {
        closeFrame(stack_[i]);
        return;
      }
    }
  }

  void enter(const std::string& name) {
    std::size_t parentIndex = stack_.size() - 1;
    std::string parentPath = stack_[parentIndex].path;
    int parent = descriptor(parentIndex);
    std::string path = parentPath.back() == '/' ? parentPath + name : parentPath + "/" + name;
    if (parent < 0) {
      visitor_.error(path, ENOENT);  // the folder above was moved or removed meanwhile
      return;
    }
    int fd = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
      // Replaced by something that isn't a folder since it was listed: nothing to walk.
      if (errno != ENOTDIR && errno != ELOOP && errno != ENOENT) visitor_.error(path, errno);
      return;
    }
    struct stat status;
    if (::fstat(fd, &status) != 0) {
      visitor_.error(path, errno);
      ::close(fd);
      return;
    }
    if ((options_.stayOnFileSystem && status.st_dev != rootDevice_) ||
        !visitor_.enterFolder(parentPath, name, status)) {
      ::close(fd);
      return;
    }
    makeRoom();
    push(fd, status, name, std::move(path));
  }

  void push(int fd, const struct stat& status, std::string name, std::string path) {
    stack_.push_back(
        Frame{fd, status.st_dev, status.st_ino, std::move(name), std::move(path), {}, 0});
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
        visitor_.error(frame.path, errno);
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
        if (errno != ENOENT) visitor_.error(frame.path + "/" + name, errno);
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
    visitor_.entry(frame.path, name, status);
  }

  const std::string root_;
  WalkVisitor& visitor_;
  const WalkOptions options_;
  std::unique_ptr<char[]> buffer_;
  std::vector<Frame> stack_;
  std::size_t open_ = 0;
  dev_t rootDevice_ = 0;
};

}  // namespace

bool walkTree(const std::string& root, WalkVisitor& visitor, const WalkOptions& options) {
  return Walker(root, visitor, options).run();
}

}  // namespace platform
