#pragma once

// Deleting a file, a link or a whole folder so that nobody can turn the deletion elsewhere: the
// one way every deletion of the product goes, the user's own and the privileged helper's.
//
// The folder that holds the path is opened one component at a time from "/", and everything
// below it is reached from open descriptors (openat, unlinkat), never by a path: a folder swapped
// for a link while the work goes on is removed as the link it has become, and what it points at
// stays. Trees of any depth are deleted (paths far beyond PATH_MAX) within any descriptor limit,
// whatever type the directory listing gives (or doesn't give) an entry. Another file system
// mounted inside the tree, or a bind mount, is not entered, and a mount point named directly is
// not deleted.

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace platform {

// Which symbolic links may stand in the path above the item.
enum class ParentLinks {
  // None: a link anywhere above the item fails the path (ELOOP).
  none,
  // Those that no one else could have put there: a link that belongs to root or to this
  // process's user, in a folder of theirs that no one else may change (or whose sticky bit keeps
  // others from replacing the link), as the kernel's protected_symlinks reasons. A home folder
  // reached through a link of the administrator's works; a link that another user swapped in
  // does not.
  trusted,
};

// Asked once the item is found (the folder that holds it open, its status taken), before
// anything of it is deleted: 0 lets the deletion go on; an errno leaves the item untouched and
// is the answer. `path` is the item's path, `name` its name in `folder`.
using DeletionGuard = std::function<int(const std::string& path, int folder,
                                        const std::string& name, const struct stat& status)>;

// The folder that held the last path deleted, kept open for the next path in the same folder
// (a list of files names many in few folders): opened as `openParentFolder` opens it, and reused
// only for a path whose folder is spelt the same. Owned by one deleter at a time.
class ParentFolderCache {
 public:
  ParentFolderCache() = default;
  ParentFolderCache(const ParentFolderCache&) = delete;
  ParentFolderCache& operator=(const ParentFolderCache&) = delete;
  ~ParentFolderCache();

  // The folder `folder` as last opened, or -1.
  int find(const std::string& folder) const { return folder == folder_ ? fd_ : -1; }
  // Keeps `fd` (which this now owns) for `folder`, closing the one kept before.
  void keep(const std::string& folder, int fd);

 private:
  std::string folder_;
  int fd_ = -1;
};

struct TreeDeletionOptions {
  ParentLinks parentLinks = ParentLinks::trusted;
  // Asked between entries, when given: false leaves what is left (the answer is `interrupted`).
  // It may block while the work is paused.
  std::function<bool()> goOn;
  // Ends the folder at its first failure, leaving the rest; otherwise everything that can go
  // goes, and the first failure is reported.
  bool stopAtFirstFailure = false;
  // When given, decides whether the item may go.
  DeletionGuard guard;
  // Called with each entry about to go, when given: the path of the folder that holds it ("" for
  // the path itself) and its name (the path itself for the path).
  std::function<void(const std::string& folder, std::string_view name)> current;
  // When given, the folder that holds the path is taken from it, and kept in it.
  ParentFolderCache* parents = nullptr;
  // Threads that may share the deletion of a folder, the calling one included. With more than
  // one, `goOn` and `current` are called from each of them, one call at a time.
  unsigned threads = 1;
};

struct TreeDeletion {
  // 0 when the path is gone (or was never there); else the errno of the first failure: EXDEV
  // for a mount inside the tree, EBUSY for a mount point named directly, EINVAL for a path that
  // names no item ("/", "x/..", a NUL byte in it).
  int error = 0;
  // The path of the first failure ("" when there was none).
  std::string failedPath;
  // The walk was ended by `goOn` before the path was gone.
  bool interrupted = false;
  // Entries removed (files, links, folders), the path itself included.
  std::uint64_t removed = 0;
};

// Deletes the absolute `path` with this process's rights.
TreeDeletion deleteTree(const std::string& path, const TreeDeletionOptions& options = {});

// Opens the folder that holds the absolute `path` (O_DIRECTORY, from "/", links as `links`
// allows); -1 with errno set on failure. Gives the last component in `name`.
int openParentFolder(const std::string& path, ParentLinks links, std::string& name);

}  // namespace platform
