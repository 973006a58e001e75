#pragma once

// A query of the file index: the files of a search scope that answer a predicate, gathered in
// the background, with update events while gathering and one finish event. Events arrive on the
// delivery queue (the main queue unless another is given) and the query is used from that
// queue only.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "platform/Dispatch.h"
#include "platform/TreeWalker.h"

namespace platform {

// Files of at least `bytes` bytes.
struct MinimumSizePredicate {
  std::int64_t bytes = 0;
  friend bool operator==(const MinimumSizePredicate&, const MinimumSizePredicate&) = default;
};

// Disk images, known by their extension (compared without regard to case).
struct DiskImagePredicate {
  friend bool operator==(const DiskImagePredicate&, const DiskImagePredicate&) = default;
};

using MetadataPredicate = std::variant<MinimumSizePredicate, DiskImagePredicate>;

// Parses the index's query language as far as the library speaks it:
// "kMDItemFSSize >= N" and "kMDItemContentType == 'com.apple.disk-image-udif'".
std::optional<MetadataPredicate> predicateFromMetadataQueryString(const std::string& query);

// The extensions that make a disk image: ".dmg", ".iso", ".img", ".sparseimage",
// ".sparsebundle", ".qcow2", ".vdi", ".vmdk", ".vhd", ".vhdx".
const std::set<std::string>& diskImageExtensions();

// One result. Attributes the index doesn't have are empty.
struct MetadataItem {
  std::optional<std::string> path;   // kMDItemPath
  std::optional<std::int64_t> size;  // kMDItemFSSize
};

class MetadataQuery {
 public:
  virtual ~MetadataQuery() = default;

  // Configuration, before `startQuery()`.
  virtual void setPredicate(MetadataPredicate predicate) = 0;
  // Folders to search; empty means the home folder.
  virtual void setSearchScopes(std::vector<std::string> scopes) = 0;
  virtual void setNotificationBatchingInterval(std::chrono::milliseconds interval) = 0;
  // Results largest first (ties by path) once gathering ends; otherwise in the order found.
  virtual void setSortBySizeDescending(bool descending) = 0;

  // Observers of the two events, called on the delivery queue.
  virtual void setDidUpdate(std::function<void()> handler) = 0;
  virtual void setDidFinishGathering(std::function<void()> handler) = 0;

  // Starts gathering, from the beginning. A running query is stopped first.
  virtual void startQuery() = 0;
  // Ends gathering: no event comes after it, and `results()` keeps what had arrived.
  virtual void stopQuery() = 0;

  // The items gathered so far: those announced by the last update, or all of them after the
  // finish event.
  virtual const std::vector<MetadataItem>& results() const = 0;

  // What couldn't be read by the gathering so far (folders that couldn't be opened or listed,
  // entries that couldn't be examined): a result given with any of these isn't complete.
  virtual std::vector<WalkError> errors() const { return {}; }
};

// True when the platform presents the folder at `path` as one item: a folder whose name ends in
// one of the package extensions of macOS (".app", ".bundle", ".framework", ".photoslibrary",
// ".sparsebundle", ...), so that such bundles on any disk compare as wholes. The caller knows
// that `path` is a folder; only the name is looked at.
bool isPackage(const std::string& path);

// The total size of a package as the index knows it, 0 when unknown. Linux keeps no such
// figure, and walking the package would cost what hashing it costs, so this is always 0.
std::int64_t packageFileSize(const std::string& path);

// A query over a walk of the file system: links are never followed and the walk stays on the
// file system of each scope.
std::unique_ptr<MetadataQuery> makeMetadataQuery(DispatchQueue delivery = DispatchQueue::main());

}  // namespace platform
