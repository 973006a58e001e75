#pragma once

// What a host does around a duplicate search before it shows or deletes anything. The engine
// compares what it walked by path: two roots that overlap, a folder mounted inside itself, the
// names of one hard-linked file, or a photo whose file is also walked as a plain file all give
// one file more than once. These functions look at the disk (device and inode) so that a group
// never holds the same file twice, and plan which members a "keep one of each" clean-up would
// delete and what that frees. Plain functions, safe on any thread; they follow no link.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Core/File.h"

namespace Core {

// The roots a search should be given, and why the others were left out.
struct ResolvedRoots {
  struct Dropped {
    std::string root;    // as given
    std::string reason;  // "same as ROOT" or "inside ROOT"
  };
  std::vector<std::string> roots;  // resolved (no link, no ".", no trailing "/"), in given order
  std::vector<Dropped> dropped;
};

// True when `path` names a photo library (ends in ".photoslibrary", in any case): such a root is
// read from its database, not walked.
bool isPhotoLibraryPath(const std::string& path);

// Resolves each root with `realpath` and keeps, in the order given, those that are neither the
// same folder as an earlier root nor inside another root (decided by device and inode of the
// root and of each of its ancestors, so bind mounts count). A photo library (a name ending in
// ".photoslibrary") is read from its database, not walked, so it is only dropped when it is the
// same as another root. A root that can't be resolved is kept as given: the search reports it
// unreadable.
ResolvedRoots resolveRoots(const std::vector<std::string>& roots);

enum class MemberKind { file, folder, package, photo };

// One member of a group: one file on disk (one device and inode), under the name the search
// gave first, with the further names under which the search also met it.
struct GroupMember {
  Duplicate item;
  MemberKind kind = MemberKind::file;
  std::vector<std::string> otherNames;  // hard links, or the same file met again
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t linkCount = 1;
  std::int64_t modified = 0;  // seconds since 1970, when it was examined

  const File& file() const;
};

using DuplicateGroup = std::vector<GroupMember>;

struct RefineOptions {
  // Keep the names of one hard-linked file as members of their own (each is still marked with
  // its device and inode, so what deleting frees counts the file once).
  bool keepHardLinks = false;
};

// The groups with every member looked up on disk: members that are one file become one member (a
// photo wins over a plain file, else the first), members that can no longer be examined are
// dropped, and a group left with fewer than two members is no group. The groups given are taken
// apart as they are refined.
std::vector<DuplicateGroup> refineGroups(std::vector<std::vector<Duplicate>> groups,
                                         const RefineOptions& options = {});

// A "keep one of each" clean-up: which paths it deletes and how many bytes that frees. Its
// paths are views of the names in the groups planned, valid while those groups are.
struct KeepOnePlan {
  struct Target {
    std::string_view path;
    MemberKind kind;
    std::string_view keptPath;  // the member its group keeps, to compare it with before deleting
    std::optional<std::string_view> photoID;  // for a photo
  };
  std::vector<Target> deletions;       // no target lies inside another
  std::vector<std::string_view> kept;  // the member kept of each group, in group order
  std::int64_t bytesFreed = 0;         // files whose every name is deleted, each counted once
  std::size_t groupsLeftAlone = 0;     // groups where no copy could be kept safely
};

// Keeps one member of each group and deletes the rest. Folder and package groups are decided
// first; a file group keeps its first member that no deleted folder holds, so that the kept
// copies survive the clean-up together. A group whose every member would go with a deleted folder
// is left alone, and nothing that holds a kept member is ever deleted. Deleting a member deletes
// all of its names. `bytesFreed` walks deleted folders and counts each file (device and inode)
// once, and only when no name of it stays outside what is deleted.
// Which member a group keeps, among those no deleted folder holds: the first, the one modified
// last or first, or the one with the shortest path (ties go to the earlier member). With
// `keepUnder`, a member below that folder is kept when there is one.
struct KeepRule {
  enum class Choice { first, newest, oldest, shortestPath };
  Choice choice = Choice::first;
  std::optional<std::string> keepUnder;
};

// A member that is the same file as the kept one (one device and inode) is never deleted.
KeepOnePlan planKeepingOne(const std::vector<DuplicateGroup>& groups, const KeepRule& rule = {});
// What `planKeepingOne` frees, without listing its targets: for a report, which shows only
// the total.
std::int64_t bytesFreedKeepingOne(const std::vector<DuplicateGroup>& groups,
                                  const KeepRule& rule = {});
// The plan would outlive groups made for the call.
KeepOnePlan planKeepingOne(std::vector<DuplicateGroup>&& groups,
                           const KeepRule& rule = {}) = delete;

// True when `a` and `b` hold the same bytes: two regular files of equal content, two links with
// the same target text, or two folders with the same names, each entry the same in turn. Nothing
// is followed; a file that can't be read, a pipe, a device or a mount inside makes it false.
bool sameContents(const std::string& a, const std::string& b);
// The same for the entry `name` of the open folder `folder` and the path `b`.
bool sameContentsAt(int folder, const std::string& name, const std::string& b);

}  // namespace Core
