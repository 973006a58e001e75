#pragma once

// A depth-first walk of a file tree that never follows symbolic links. Each folder is opened
// once and its entries are examined relative to its descriptor (openat, fstatat), so no path is
// built unless a visitor asks for one. Trees of any depth are walked within any descriptor limit:
// one folder per level stays open while half the process's limit allows; past that, the
// shallowest are closed and reopened on the way back up as ".." of the folder below (or from
// the nearest open ancestor), always checked against their device and inode. A walk that runs
// out of descriptors reports the folders it couldn't open as errors (EMFILE), never silently.

#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <string>
#include <string_view>

namespace platform {

class WalkVisitor {
 public:
  virtual ~WalkVisitor() = default;

  // An entry that isn't a folder (or the root itself when it isn't a folder). `status` is the
  // entry's lstat; `folder` is the path of the folder that holds it ("" for the root).
  virtual void entry(const std::string& folder, std::string_view name,
                     const struct stat& status) = 0;

  // A folder about to be entered (not called for the root); false skips it.
  virtual bool enterFolder(const std::string& folder, std::string_view name,
                           const struct stat& status) {
    return true;
  }

  // `path` couldn't be opened, listed or examined; the walk goes on.
  virtual void error(const std::string& path, int code) {}

  // As `entry`, with the descriptor of the folder that holds the entry (the root's parent for
  // the root), for visitors that act on entries; by default `entry`.
  virtual void entryAt(int folder, const std::string& folderPath, std::string_view name,
                       const struct stat& status) {
    entry(folderPath, name, status);
  }

  // A folder whose entries have all been visited (the root too, last), with the descriptor of
  // the folder that holds it and that folder's path; called after the folder was closed, and not
  // for a walk that was stopped.
  virtual void leftFolder(int parent, const std::string& parentPath, std::string_view name) {}
};

// What a walk cost, for tests and benchmarks.
struct WalkStatistics {
  std::size_t folderOpens = 0;  // folders opened, reopenings included
};

// A path that couldn't be read, and why (an errno value).
struct WalkError {
  std::string path;
  int code = 0;
};

struct WalkOptions {
  // Folders on another file system than the root's are passed over.
  bool stayOnFileSystem = false;
  // Read between entries: once set, the walk ends within one entry.
  const std::atomic<bool>* stop = nullptr;
  // Regular files, links and other entries are lstat'ed only when this is true. Walks that only
  // want regular files' sizes keep it true; walks that want names only may set it false, and
  // then `status` carries only the file type bits for entries the directory listing typed.
  bool statEntries = true;
  // Asked between entries, when given: false ends the walk as `stop` does. It may block (while
  // the work is paused).
  std::function<bool()> goOn;
  // Folders on another file system, or another mount of the same one (a bind mount), than the
  // root's are not entered, and each is reported as an error EXDEV. Mounts are told apart by
  // the kernel's mount id where it gives one, else by device.
  bool stayOnMount = false;
  // Filled in when given.
  WalkStatistics* statistics = nullptr;
  // Walks running at once over the process's descriptors: each keeps open only its share of the
  // folders one walk may keep.
  unsigned share = 1;
};

// Walks `root`. Gives false when the root itself can't be examined (the error is also reported
// to the visitor).
bool walkTree(const std::string& root, WalkVisitor& visitor, const WalkOptions& options = {});

// Walks the entry `name` of the open folder `parent` (which the caller keeps open for the whole
// walk) as `walkTree` walks a root; `path` is its path for the visitor. Nothing of the path above
// `parent` is looked up again, so folders swapped for links there can't redirect the walk.
bool walkTreeAt(int parent, const std::string& name, const std::string& path, WalkVisitor& visitor,
                const WalkOptions& options = {});

}  // namespace platform
