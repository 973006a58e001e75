#pragma once

// What a host does around a duplicate search before it shows or deletes anything. The engine
// compares what it walked by path: two roots that overlap, a folder mounted inside itself, the
// names of one hard-linked file, or a photo whose file is also walked as a plain file all give
// one file more than once. These functions look at the disk (device and inode) so that a group
// never holds the same file twice, and plan which members a "keep one of each" clean-up would
// delete and what that frees. Plain functions, safe on any thread; they follow no link.

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Core/File.h"
#include "dff/FoundGroups.h"

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

enum class MemberKind : std::uint8_t { file, folder, package, photo };

// One member of a group: one file on disk (one device and inode), under the name the search
// gave first, with the further names under which the search also met it. Its names and size
// are the groups' to give (`DuplicateGroups::path` and the others).
struct GroupMember {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t modified = 0;  // seconds since 1970, when it was examined
  std::uint32_t found = 0;    // the member of the search's groups whose name it is shown under
  std::uint32_t others = 0;   // 1 + index of its further names, or 0
  std::uint32_t linkCount = 1;
  MemberKind kind = MemberKind::file;
};

struct RefineOptions {
  // Keep the names of one hard-linked file as members of their own (each is still marked with
  // its device and inode, so what deleting frees counts the file once).
  bool keepHardLinks = false;
};

class DuplicateGroups;

// The groups with every member looked up on disk: members that are one file become one member (a
// photo wins over a plain file, else the first), members that can no longer be examined are
// dropped, and a group left with fewer than two members is no group.
DuplicateGroups refineGroups(dff::FoundGroups found, const RefineOptions& options = {});

// The refined groups: a record per member over the names the search handed over.
class DuplicateGroups {
 public:
  using Group = std::span<const GroupMember>;

  class Iterator {
   public:
    using value_type = Group;
    using difference_type = std::ptrdiff_t;
    Iterator() = default;
    Iterator(const DuplicateGroups* groups, std::size_t at) : groups_(groups), at_(at) {}
    Group operator*() const { return (*groups_)[at_]; }
    Iterator& operator++() {
      ++at_;
      return *this;
    }
    Iterator operator++(int) {
      Iterator was = *this;
      ++at_;
      return was;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.at_ == b.at_; }

   private:
    const DuplicateGroups* groups_ = nullptr;
    std::size_t at_ = 0;
  };

  DuplicateGroups() = default;

  std::size_t size() const { return ends_.size(); }
  bool empty() const { return ends_.empty(); }
  std::size_t memberCount() const { return members_.size(); }
  Group operator[](std::size_t group) const {
    const std::size_t first = group == 0 ? 0 : ends_[group - 1];
    return {members_.data() + first, ends_[group] - first};
  }
  Iterator begin() const { return {this, 0}; }
  Iterator end() const { return {this, size()}; }

  std::string path(const GroupMember& member) const { return found_.path(member.found); }
  void appendPath(const GroupMember& member, std::string& out) const {
    found_.appendPath(member.found, out);
  }
  std::size_t pathLength(const GroupMember& member) const {
    return found_.pathLength(member.found);
  }
  std::int64_t fileSize(const GroupMember& member) const { return found_.fileSize(member.found); }
  std::optional<std::string_view> photoID(const GroupMember& member) const {
    return found_.photoID(member.found);
  }
  // The further names of the file: hard links, or the same file met again.
  std::vector<std::string> otherNames(const GroupMember& member) const;
  std::size_t otherNameCount(const GroupMember& member) const {
    return member.others == 0 ? 0 : others_[member.others - 1].size();
  }

 private:
  friend DuplicateGroups refineGroups(dff::FoundGroups found, const RefineOptions& options);
  dff::FoundGroups found_;
  std::vector<GroupMember> members_;
  std::vector<std::size_t> ends_;
  std::vector<std::vector<std::uint32_t>> others_;  // members of `found_`
};

// The same for groups given as values, each path whole.
DuplicateGroups refineGroups(const std::vector<std::vector<Duplicate>>& groups,
                             const RefineOptions& options = {});

// A "keep one of each" clean-up: which paths it deletes and how many bytes that frees. Its
// paths are views of names the plan holds; a photo's identifier is a view into the groups
// planned, valid while they are.
struct KeepOnePlan {
  struct Target {
    std::string_view path;
    MemberKind kind;
    std::string_view keptPath;  // the member its group keeps, to compare it with before deleting
    std::optional<std::string_view> photoID;  // for a photo
  };
  std::vector<Target> deletions;        // no target lies inside another
  std::vector<std::string_view> kept;   // the member kept of each group, in group order
  std::int64_t bytesFreed = 0;          // files whose every name is deleted, each counted once
  std::size_t groupsLeftAlone = 0;      // groups where no copy could be kept safely
  std::shared_ptr<const char[]> names;  // what the paths above look at
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
KeepOnePlan planKeepingOne(const DuplicateGroups& groups, const KeepRule& rule = {});
// What `planKeepingOne` frees, without listing its targets: for a report, which shows only
// the total.
std::int64_t bytesFreedKeepingOne(const DuplicateGroups& groups, const KeepRule& rule = {});

// True when `a` and `b` hold the same bytes: two regular files of equal content, two links with
// the same target text, or two folders with the same names, each entry the same in turn. Nothing
// is followed; a file that can't be read, a pipe, a device or a mount inside makes it false.
bool sameContents(const std::string& a, const std::string& b);
// The same for the entry `name` of the open folder `folder` and the path `b`.
bool sameContentsAt(int folder, const std::string& name, const std::string& b);

}  // namespace Core
