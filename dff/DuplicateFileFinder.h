#pragma once

// The duplicate engine's driver. `find` walks the chosen folders and photo libraries into one tree
// of entries, sorts them into size tables, narrows files and packages by staged digests, digests
// folders from their children and returns the groups of identical entries that a user should
// see: file groups first, then packages, then folders.
//
// Everything runs on the thread that calls `find`; `stop` may come from any other thread.

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dff/Duplicate.h"
#include "dff/File.h"

namespace dff {

class FileHash;
class PackageHash;

using Group = Values<File*>;
using Result = std::vector<Group>;

class DuplicateFileFinder {
 public:
  // Both functions must be callable. `currentPathCallback` is throttled to 25 calls per second
  // of processor time.
  DuplicateFileFinder(std::function<void(double)> progressCallback,
                      std::function<void(const Path&)> currentPathCallback);
  DuplicateFileFinder(const DuplicateFileFinder&) = delete;
  DuplicateFileFinder& operator=(const DuplicateFileFinder&) = delete;

  // Runs a whole search and gives the groups. The entries stay valid until `releaseFiles`, which
  // must be called between runs. A stop made before `find` begins has no effect.
  Result find();
  // Makes the running `find` wind down and return what it has settled.
  void stop();
  // Frees the whole tree of the last run.
  void releaseFiles();

  std::vector<Path> rootFolders;
  std::vector<Path> excludePaths;
  std::vector<std::string> excludeExtensions;
  bool includeHiddenFolders = false;
  std::int64_t minFileSize = 0;
  // How many threads read and digest files at once: 0 for one per processor, 1 for the search's
  // own thread alone. Whatever the number, the groups, their order and the order of their
  // members are the same: results are settled in the order one thread would settle them.
  unsigned jobs = 0;

  // The passes, in the order `find` runs them. The resolution passes take the values out of the
  // size tables they are given: the tables are done with afterwards.
  std::unique_ptr<Directory> scanFiles(const Path& root, Duplicate<long long, File*>& filesBySize,
                                       Duplicate<long long, Symlink*>& linksBySize,
                                       Duplicate<long long, Package*>& packagesBySize,
                                       std::deque<Package*>& unsizedPackages);
  std::unique_ptr<PhotoLibrary> scanPhotoLibrary(const Path& root,
                                                 Duplicate<long long, File*>& filesBySize,
                                                 Duplicate<long long, Package*>& packagesBySize,
                                                 std::deque<Package*>& unsizedPackages);
  void findDuplicateFiles(Duplicate<long long, File*>& filesBySize,
                          Duplicate<HashValue, File*>& fileDuplicates) const;
  void findDuplicateLinks(const Duplicate<long long, Symlink*>& linksBySize) const;
  void findDuplicatePackages(Duplicate<long long, Package*>& packagesBySize,
                             const std::deque<Package*>& unsizedPackages,
                             Duplicate<HashValue, Package*>& packageDuplicates) const;
  void findDuplicateDirectories(Directory* directory,
                                Duplicate<HashValue, Directory*>& directoryDuplicates) const;

  // Single entries of `table` become `unique`; members of groups are marked `duplicate`.
  template <class T>
  void markDuplicateContainers(const Duplicate<HashValue, T*>& table) const {
    for (auto& node : table) {
      if (node.values.size() == 1) {
        node.values.front()->unique = true;
      } else {
        for (T* value : node.values) value->duplicate = true;
      }
    }
  }

  // Appends the groups of `table` that a user should see: a group whose members all sit in
  // duplicate containers is left out, since its containers are reported instead.
  template <class T>
  void filter(const Duplicate<HashValue, T*>& table, Result& result) const {
    for (auto& node : table) {
      if (node.values.size() < 2) continue;
      bool allInDuplicates = true;
      for (T* value : node.values) {
        if (value->parent == nullptr || !value->parent->duplicate) {
          allInDuplicates = false;
          break;
        }
      }
      if (allInDuplicates) continue;
      result.emplace_back(node.values.begin(), node.values.end());
    }
  }

  // True when the entry's name ends in one of `excludeExtensions`.
  bool exclude(const struct dirent* entry) const;
  bool exclude(const char* name, std::size_t length) const;
  // True when `path` is one of `excludePaths`, compared whole and ignoring ASCII case.
  bool exclude(const Path& path) const;
  // True when the platform treats the folder as one item.
  static bool isPackage(const Path& path);
  // Case-insensitive suffix test; a name that is nothing but the suffix doesn't match.
  static bool withExtension(const struct dirent* entry, const char* suffix);
  static bool withExtension(const char* name, std::size_t length, const char* suffix);
  static bool withExtension(const Path& path, const char* suffix);

  void notifyCurrentPath(const Path& path) const;
  // The same for `folder` / `name` or for an entry; the path is built only when it is reported.
  void notifyCurrentPath(const Path& folder, const char* name) const;
  void notifyCurrentPath(const File* entry) const;

  // The trees of the last run; they own every entry.
  std::vector<std::unique_ptr<Directory>> directories;
  std::vector<std::unique_ptr<Package>> photoLibraries;

 private:
  // Narrows `groups` stage by stage: finished entries go to `finished`, entries left alone in
  // their part become `unique`. `make` builds the hasher of an entry.
  // True when a current-path report may go out now; then the caller reports.
  bool mayReportPath() const;

  // `resolve` for files, with `workers` threads reading and digesting: a batch of groups is
  // taken at a time, as `resolve` would take them, the stages of all its groups are read in
  // waves, and the digests are settled in the order `resolve` settles them. Every worker opens
  // files through folder descriptors of its own (`handleBudget` in all).
  void resolveFilesInParallel(std::vector<std::vector<File*>>& groups,
                              Duplicate<HashValue, File*>& finished, unsigned workers,
                              std::size_t handleBudget) const;

  template <class Entry, class Hasher, class Make>
  void resolve(std::vector<std::vector<Entry*>>& groups, Duplicate<HashValue, Entry*>& finished,
               Entry* Hasher::*entry, Make make) const;

  std::function<void(double)> progressCallback_;
  std::function<void(const Path&)> currentPathCallback_;
  std::atomic<bool> stopped_{false};
};

}  // namespace dff
