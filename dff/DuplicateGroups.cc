#include "dff/DuplicateGroups.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <utility>

#include "platform/Dispatch.h"
#include "platform/Metadata.h"
#include "platform/TreeWalker.h"

namespace Core {

namespace {

struct Identity {
  std::uint64_t device;
  std::uint64_t inode;
  friend auto operator<=>(const Identity&, const Identity&) = default;
};

std::optional<Identity> identityOf(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return Identity{status.st_dev, status.st_ino};
}

}  // namespace

bool isPhotoLibraryPath(const std::string& path) {
  static constexpr char kSuffix[] = ".photoslibrary";
  constexpr std::size_t length = sizeof(kSuffix) - 1;
  return path.size() > length &&
         ::strncasecmp(path.c_str() + path.size() - length, kSuffix, length) == 0;
}

ResolvedRoots resolveRoots(const std::vector<std::string>& roots) {
  struct Root {
    std::string given;
    std::string resolved;
    std::optional<Identity> identity;
    std::vector<Identity> ancestors;
    bool library = false;
  };
  std::vector<Root> all;
  for (const auto& given : roots) {
    Root root{given, given, std::nullopt, {}, false};
    if (char* real = ::realpath(given.c_str(), nullptr)) {
      root.resolved = real;
      std::free(real);
      root.identity = identityOf(root.resolved);
      // Each folder above the root, so that a root reached through a bind mount of another is
      // still seen to lie inside it.
      for (std::size_t slash = root.resolved.find('/', 1); slash != std::string::npos;
           slash = root.resolved.find('/', slash + 1)) {
        if (auto above = identityOf(root.resolved.substr(0, slash))) {
          root.ancestors.push_back(*above);
        }
      }
      if (root.resolved != "/") {
        if (auto top = identityOf("/")) root.ancestors.push_back(*top);
      }
    }
    root.library = isPhotoLibraryPath(root.resolved);
    all.push_back(std::move(root));
  }

  ResolvedRoots result;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const Root& root = all[i];
    std::optional<std::string> reason;
    for (std::size_t j = 0; j < all.size() && !reason; ++j) {
      const Root& other = all[j];
      if (j == i || !root.identity || !other.identity) continue;
      if (*root.identity == *other.identity && root.library == other.library) {
        // The first of equal roots stays.
        if (j < i) reason = "same as " + other.given;
        continue;
      }
      if (root.library || other.library) continue;
      if (std::find(root.ancestors.begin(), root.ancestors.end(), *other.identity) !=
          root.ancestors.end()) {
        reason = "inside " + other.given;
      }
    }
    if (reason) {
      result.dropped.push_back({root.given, *reason});
    } else {
      result.roots.push_back(root.resolved);
    }
  }
  return result;
}

std::vector<std::string> DuplicateGroups::otherNames(const GroupMember& member) const {
  std::vector<std::string> names;
  if (member.others == 0) return names;
  for (std::uint32_t other : others_[member.others - 1]) names.push_back(found_.path(other));
  return names;
}

DuplicateGroups refineGroups(const std::vector<std::vector<Duplicate>>& groups,
                             const RefineOptions& options) {
  dff::FoundGroups found;
  for (const auto& group : groups) {
    for (const auto& item : group) {
      if (auto* photo = std::get_if<Photo>(&item)) {
        found.addPath(photo->file.url, photo->file.size, photo->id);
      } else {
        found.addPath(std::get<File>(item).url, std::get<File>(item).size);
      }
    }
    found.endGroup();
  }
  return refineGroups(std::move(found), options);
}

DuplicateGroups refineGroups(dff::FoundGroups found, const RefineOptions& options) {
  // Members are examined ahead of their turn, a window of them at a time, on as many threads as
  // there are processors: a search may give a million of them, and the rest of the work is quick
  // by comparison. The window bounds what is held: a stat for each member at once would double
  // the memory of a search of a million files.
  struct Examined {
    struct stat status;
    bool present;
  };
  constexpr std::size_t kWindow = 1 << 14;
  const std::size_t count = found.memberCount();
  std::vector<Examined> examined;
  std::vector<std::string> paths;
  std::size_t windowStart = 0;
  auto examinedAt = [&](std::size_t index) -> const Examined& {
    if (index >= windowStart + examined.size()) {
      windowStart = index;
      const std::size_t length = std::min(kWindow, count - index);
      examined.resize(length);
      paths.resize(length);
      for (std::size_t i = 0; i < length; ++i) {
        paths[i].clear();
        found.appendPath(windowStart + i, paths[i]);
      }
      auto examine = [&](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
          examined[i].present = ::lstat(paths[i].c_str(), &examined[i].status) == 0;
        }
      };
      const std::size_t threads =
          std::min<std::size_t>(platform::processorCount(), 1 + length / 4096);
      const std::size_t share = (length + threads - 1) / threads;
      std::vector<std::thread> helpers;
      for (std::size_t t = 1; t < threads; ++t) {
        helpers.emplace_back(examine, std::min(length, t * share),
                             std::min(length, (t + 1) * share));
      }
      examine(0, std::min(length, share));
      for (auto& helper : helpers) helper.join();
    }
    return examined[index - windowStart];
  };

  DuplicateGroups refined;
  refined.members_.reserve(count);
  std::map<Identity, std::size_t> seen;
  std::string firstPath;
  for (std::size_t g = 0; g < found.size(); ++g) {
    const std::size_t start = refined.members_.size();
    seen.clear();
    for (std::size_t index : found.members(g)) {
      const Examined& looked = examinedAt(index);
      // A member that can no longer be examined can't be shown as a copy of anything.
      if (!looked.present) continue;
      const std::string& path = paths[index - windowStart];
      const struct stat& status = looked.status;
      GroupMember member;
      member.found = static_cast<std::uint32_t>(index);
      if (found.isPhoto(index)) {
        member.kind = MemberKind::photo;
      } else if (S_ISDIR(status.st_mode)) {
        member.kind = platform::isPackage(path) ? MemberKind::package : MemberKind::folder;
      }
      member.device = status.st_dev;
      member.inode = status.st_ino;
      member.linkCount = static_cast<std::uint32_t>(
          std::min<std::uint64_t>(status.st_nlink, std::numeric_limits<std::uint32_t>::max()));
      member.modified = status.st_mtim.tv_sec;

      Identity identity{member.device, member.inode};
      auto known = seen.find(identity);
      if (known != seen.end()) {
        GroupMember& first = refined.members_[start + known->second];
        firstPath.clear();
        found.appendPath(first.found, firstPath);
        const bool samePath = firstPath == path;
        const bool photoAndFile =
            (first.kind == MemberKind::photo) != (member.kind == MemberKind::photo);
        if (!options.keepHardLinks || samePath || photoAndFile) {
          // One file met twice: shown once, as the photo if it is one.
          auto addName = [&](GroupMember& to, std::uint32_t name) {
            if (to.others == 0) {
              refined.others_.emplace_back();
              to.others = static_cast<std::uint32_t>(refined.others_.size());
            }
            refined.others_[to.others - 1].push_back(name);
          };
          if (member.kind == MemberKind::photo && first.kind != MemberKind::photo) {
            const std::uint32_t was = first.found;
            member.others = first.others;
            first = member;
            if (!samePath) addName(first, was);
          } else if (!samePath) {
            bool named = false;
            if (first.others != 0) {
              for (std::uint32_t other : refined.others_[first.others - 1]) {
                named = named || found.path(other) == path;
              }
            }
            if (!named) addName(first, member.found);
          }
          continue;
        }
      } else {
        seen.emplace(identity, refined.members_.size() - start);
      }
      refined.members_.push_back(member);
    }
    if (refined.members_.size() - start >= 2) {
      refined.ends_.push_back(refined.members_.size());
    } else {
      refined.members_.resize(start);
    }
  }
  refined.members_.shrink_to_fit();
  refined.found_ = std::move(found);
  return refined;
}

namespace {

// Adds up what deleting frees: every name of a regular file that is deleted is noted with the
// file's device, inode, size and link count, and a file counts once, when all its names are
// deleted. Deleted folders hold most of what a large clean-up deletes, so a name costs a small
// record, and the records are sorted once at the end rather than kept in a tree.
class FreedBytes final : public platform::WalkVisitor {
 public:
  void entry(const std::string&, std::string_view, const struct stat& status) override {
    if (S_ISREG(status.st_mode)) add(status);
  }
  void add(const struct stat& status) {
    add(Identity{status.st_dev, status.st_ino}, status.st_size, status.st_nlink);
  }
  // A file with one name is counted at once; only the names of a hard-linked file are kept, to
  // count it once and only when all its names go.
  void add(const Identity& identity, std::int64_t size, std::uint64_t links) {
    if (links <= 1) {
      single_ += size;
    } else {
      names_.push_back({identity, size, links});
    }
  }
  std::int64_t total() {
    std::sort(names_.begin(), names_.end(),
              [](const Name& a, const Name& b) { return a.identity < b.identity; });
    std::int64_t bytes = single_;
    for (std::size_t i = 0; i < names_.size();) {
      std::size_t j = i;
      while (j < names_.size() && names_[j].identity == names_[i].identity) ++j;
      if (j - i >= names_[i].links) bytes += names_[i].size;
      i = j;
    }
    return bytes;
  }

 private:
  struct Name {
    Identity identity;
    std::int64_t size;
    std::uint64_t links;
  };
  std::vector<Name> names_;
  std::int64_t single_ = 0;
};

}  // namespace

namespace {

std::int64_t modifiedAt(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return 0;
  return static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
}

// True when `path` is `folder` or lies below it.
bool below(std::string_view path, const std::string& folder) {
  if (folder == "/") return true;
  return path.size() >= folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         (path.size() == folder.size() || path[folder.size()] == '/');
}

// The member to keep among `candidates` (in group order), by `rule`.
const GroupMember* chooseKept(const std::vector<const GroupMember*>& candidates,
                              const DuplicateGroups& groups, const KeepRule& rule) {
  std::vector<const GroupMember*> pool = candidates;
  if (rule.keepUnder) {
    std::vector<const GroupMember*> under;
    for (const auto* member : pool) {
      if (below(groups.path(*member), *rule.keepUnder)) under.push_back(member);
    }
    if (!under.empty()) pool = under;
  }
  const GroupMember* best = pool.front();
  if (rule.choice == KeepRule::Choice::first) return best;
  for (const auto* member : pool) {
    switch (rule.choice) {
      case KeepRule::Choice::first:
        break;
      case KeepRule::Choice::newest:
        if (modifiedAt(groups.path(*member)) > modifiedAt(groups.path(*best))) best = member;
        break;
      case KeepRule::Choice::oldest:
        if (modifiedAt(groups.path(*member)) < modifiedAt(groups.path(*best))) best = member;
        break;
      case KeepRule::Choice::shortestPath:
        if (groups.pathLength(*member) < groups.pathLength(*best)) best = member;
        break;
    }
  }
  return best;
}

// Calls `body` with each name of `member`, its own first.
template <class Body>
void forEachName(const DuplicateGroups& groups, const GroupMember& member, Body&& body) {
  std::string name;
  groups.appendPath(member, name);
  body(std::string_view(name));
  if (groups.otherNameCount(member) == 0) return;
  for (const auto& other : groups.otherNames(member)) body(std::string_view(other));
}

// True when some path is a name of more than one member, or twice a name of one.
bool namesRepeat(const DuplicateGroups& groups) {
  std::vector<std::size_t> hashes;
  hashes.reserve(groups.memberCount());
  for (const auto group : groups) {
    for (const auto& member : group) {
      forEachName(groups, member, [&](std::string_view name) {
        hashes.push_back(std::hash<std::string_view>()(name));
      });
    }
  }
  std::sort(hashes.begin(), hashes.end());
  // Equal hashes are taken as equal names: at worst the plan takes its longer way.
  return std::adjacent_find(hashes.begin(), hashes.end()) != hashes.end();
}

// Every name of every member, whole, in one block that the plan keeps: the questions of what
// lies inside what are asked of paths.
class Names {
 public:
  explicit Names(const DuplicateGroups& groups) : groups_(groups) {
    std::size_t bytes = 0;
    std::size_t names = 0;
    for (const auto group : groups) {
      for (const auto& member : group) {
        forEachName(groups, member, [&](std::string_view name) {
          bytes += name.size();
          ++names;
        });
      }
    }
    auto block = std::shared_ptr<char[]>(new char[bytes + 1]);
    views_.reserve(names);
    first_.reserve(groups.memberCount() + 1);
    char* at = block.get();
    for (const auto group : groups) {
      for (const auto& member : group) {
        first_.push_back(static_cast<std::uint32_t>(views_.size()));
        forEachName(groups, member, [&](std::string_view name) {
          std::memcpy(at, name.data(), name.size());
          views_.emplace_back(at, name.size());
          at += name.size();
        });
      }
    }
    first_.push_back(static_cast<std::uint32_t>(views_.size()));
    block_ = std::move(block);
  }
  std::string_view of(const GroupMember& member) const { return views_[first_[index(member)]]; }
  std::span<const std::string_view> all(const GroupMember& member) const {
    const std::size_t i = index(member);
    return {views_.data() + first_[i], first_[i + 1] - first_[i]};
  }
  std::shared_ptr<const char[]> block() const { return block_; }

 private:
  std::size_t index(const GroupMember& member) const {
    return static_cast<std::size_t>(&member - &groups_[0][0]);
  }
  const DuplicateGroups& groups_;
  std::shared_ptr<const char[]> block_;
  std::vector<std::string_view> views_;
  std::vector<std::uint32_t> first_;  // of each member in `views_`, and one past the last
};

bool holds(MemberKind kind) { return kind == MemberKind::folder || kind == MemberKind::package; }

// What deleting the name `target` of `member` frees.
void account(FreedBytes& freed, const DuplicateGroups& groups, std::string_view target,
             const GroupMember& member) {
  if (member.kind == MemberKind::file) {
    // A file was examined when its group was refined: each of its names counts once.
    freed.add(Identity{member.device, member.inode}, groups.fileSize(member), member.linkCount);
    return;
  }
  const std::string path(target);
  struct stat status;
  if (::lstat(path.c_str(), &status) == 0) {
    if (S_ISDIR(status.st_mode)) {
      platform::walkTree(path, freed);
    } else if (S_ISREG(status.st_mode)) {
      freed.add(status);
    }
  }
}

// What a plan of groups without folders or packages, whose every name is its own, frees: no
// target can lie inside another, so each is counted as it is found and none is kept.
std::int64_t freedDirectly(const DuplicateGroups& groups, const KeepRule& rule) {
  FreedBytes freed;
  std::vector<const GroupMember*> all;
  for (const auto group : groups) {
    all.clear();
    for (const auto& member : group) all.push_back(&member);
    const GroupMember* keep = chooseKept(all, groups, rule);
    for (const auto& member : group) {
      if (&member == keep || (member.device == keep->device && member.inode == keep->inode)) {
        continue;
      }
      forEachName(groups, member,
                  [&](std::string_view name) { account(freed, groups, name, member); });
    }
  }
  return freed.total();
}

// The plan, with its targets and kept members listed when `listed`; otherwise only what it
// frees and the groups it leaves alone.
KeepOnePlan plan(const DuplicateGroups& groups, const KeepRule& rule, bool listed) {
  KeepOnePlan plan;
  // Folders and packages first: a file group then keeps a copy that outlives them.
  std::vector<std::size_t> order;
  for (std::size_t g = 0; g < groups.size(); ++g) {
    if (holds(groups[g].front().kind)) order.push_back(g);
  }
  for (std::size_t g = 0; g < groups.size(); ++g) {
    if (!holds(groups[g].front().kind)) order.push_back(g);
  }
  // A member that holds others may turn up in any group (a file replaced by a folder after the
  // search): then every kept name is one it might hold.
  bool folders = false;
  for (const auto group : groups) {
    for (const auto& member : group) folders = folders || holds(member.kind);
  }
  if (!listed && !folders && !namesRepeat(groups)) {
    plan.bytesFreed = freedDirectly(groups, rule);
    return plan;
  }

  const Names names(groups);
  plan.names = names.block();
  // Only a folder or a package holds other paths: the questions about what lies inside what
  // look up sorted sets of those alone, and whole paths are looked up by hashing.
  std::unordered_set<std::string_view> keptPaths, targetPaths;
  std::set<std::string_view> keptSorted, folderTargets;
  struct Candidate {
    KeepOnePlan::Target target;
    const GroupMember* member;  // whose name it is
  };
  std::vector<Candidate> candidates;
  FreedBytes freed;

  // A path lies inside a target when it is one or one of its leading parts is a folder target;
  // a folder holds a kept path when it is one or the first kept path after it starts with it.
  auto insideTarget = [&](std::string_view path) {
    if (targetPaths.empty()) return false;
    if (targetPaths.count(path) > 0) return true;
    if (folderTargets.empty()) return false;
    for (std::size_t slash = path.find('/', 1); slash != std::string_view::npos;
         slash = path.find('/', slash + 1)) {
      if (folderTargets.count(path.substr(0, slash)) > 0) return true;
    }
    return folderTargets.count("/") > 0;
  };
  std::string below;
  auto holdsKept = [&](std::string_view path, MemberKind kind) {
    if (keptPaths.count(path) > 0) return true;
    if (!holds(kind)) return false;
    below = path;
    if (path != "/") below += '/';
    auto next = keptSorted.lower_bound(below);
    return next != keptSorted.end() && next->substr(0, below.size()) == below;
  };
  auto addTarget = [&](std::string_view path, MemberKind kind) {
    targetPaths.insert(path);
    if (holds(kind)) folderTargets.insert(path);
  };

  std::size_t most = 0;
  for (const auto group : groups) {
    for (const auto& member : group) most += names.all(member).size();
  }
  candidates.reserve(most);
  if (listed) plan.kept.reserve(groups.size());

  std::vector<const GroupMember*> free;
  for (std::size_t g : order) {
    const auto group = groups[g];
    free.clear();
    for (const auto& member : group) {
      if (!insideTarget(names.of(member))) free.push_back(&member);
    }
    const GroupMember* keep = free.empty() ? nullptr : chooseKept(free, groups, rule);
    if (keep == nullptr) {
      ++plan.groupsLeftAlone;
      continue;
    }
    // Only a folder or a package asks what it holds: without them the kept names need no
    // sorted set.
    for (std::string_view name : names.all(*keep)) {
      keptPaths.insert(name);
      if (folders) keptSorted.insert(name);
    }
    if (listed) plan.kept.push_back(names.of(*keep));
    for (const auto& member : group) {
      if (&member == keep) continue;
      // The same file as the kept one under another name: deleting it frees nothing and would
      // take a name the user sees away.
      if (member.device == keep->device && member.inode == keep->inode) continue;
      const auto photoID = groups.photoID(member);
      for (std::string_view name : names.all(member)) {
        if (insideTarget(name) || holdsKept(name, member.kind)) continue;
        candidates.push_back({{name, member.kind, names.of(*keep), photoID}, &member});
        addTarget(name, member.kind);
      }
    }
  }

  // A target inside another goes with it (a folder decided before the files in it, or a name
  // of a file that is also a name inside a deleted folder).
  std::sort(candidates.begin(), candidates.end(),
            [](const auto& a, const auto& b) { return a.target.path < b.target.path; });
  targetPaths.clear();
  folderTargets.clear();
  keptPaths = {};
  keptSorted = {};
  if (listed) plan.deletions.reserve(candidates.size());
  for (auto& candidate : candidates) {
    if (insideTarget(candidate.target.path)) continue;
    addTarget(candidate.target.path, candidate.target.kind);
    account(freed, groups, candidate.target.path, *candidate.member);
    if (listed) plan.deletions.push_back(candidate.target);
  }
  plan.bytesFreed = freed.total();
  return plan;
}

}  // namespace

KeepOnePlan planKeepingOne(const DuplicateGroups& groups, const KeepRule& rule) {
  return plan(groups, rule, true);
}

std::int64_t bytesFreedKeepingOne(const DuplicateGroups& groups, const KeepRule& rule) {
  return plan(groups, rule, false).bytesFreed;
}

}  // namespace Core

namespace Core {

namespace {

constexpr int kEntryFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;

bool sameFileBytes(int a, int b) {
  static constexpr std::size_t kChunk = 1 << 16;
  std::vector<char> left(kChunk), right(kChunk);
  for (;;) {
    ssize_t n = ::read(a, left.data(), kChunk);
    if (n < 0) return false;
    std::size_t got = 0;
    while (got < static_cast<std::size_t>(n)) {
      ssize_t m = ::read(b, right.data() + got, static_cast<std::size_t>(n) - got);
      if (m <= 0) return false;
      got += static_cast<std::size_t>(m);
    }
    if (std::memcmp(left.data(), right.data(), static_cast<std::size_t>(n)) != 0) return false;
    if (n == 0) {
      char extra;
      return ::read(b, &extra, 1) == 0;
    }
  }
}

// Compares the entries `nameA` below the open folder `a` and `nameB` below `b`.
bool sameEntry(int a, const char* nameA, int b, const char* nameB, dev_t deviceA, dev_t deviceB,
               int depth) {
  if (depth > 4096) return false;
  struct stat sa, sb;
  if (::fstatat(a, nameA, &sa, AT_SYMLINK_NOFOLLOW) != 0 ||
      ::fstatat(b, nameB, &sb, AT_SYMLINK_NOFOLLOW) != 0) {
    return false;
  }
  if ((sa.st_mode & S_IFMT) != (sb.st_mode & S_IFMT)) return false;
  if (S_ISLNK(sa.st_mode)) {
    std::vector<char> ta(static_cast<std::size_t>(sa.st_size) + 1),
        tb(static_cast<std::size_t>(sb.st_size) + 1);
    ssize_t la = ::readlinkat(a, nameA, ta.data(), ta.size());
    ssize_t lb = ::readlinkat(b, nameB, tb.data(), tb.size());
    return la >= 0 && la == lb && la == sa.st_size && std::memcmp(ta.data(), tb.data(), la) == 0;
  }
  if (S_ISREG(sa.st_mode)) {
    if (sa.st_size != sb.st_size) return false;
    int fa = ::openat(a, nameA, kEntryFlags), fb = ::openat(b, nameB, kEntryFlags);
    bool same = fa >= 0 && fb >= 0 && sameFileBytes(fa, fb);
    if (fa >= 0) ::close(fa);
    if (fb >= 0) ::close(fb);
    return same;
  }
  if (!S_ISDIR(sa.st_mode)) return false;  // pipes, sockets, devices: never the same bytes
  // Another file system mounted inside is no part of the copy.
  if (sa.st_dev != deviceA || sb.st_dev != deviceB) return false;
  int da = ::openat(a, nameA, kEntryFlags | O_DIRECTORY);
  int db = ::openat(b, nameB, kEntryFlags | O_DIRECTORY);
  auto names = [](int fd) -> std::optional<std::vector<std::string>> {
    DIR* dir = ::fdopendir(::dup(fd));
    if (dir == nullptr) return std::nullopt;
    std::vector<std::string> list;
    while (struct dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") list.push_back(std::move(name));
    }
    ::closedir(dir);
    std::sort(list.begin(), list.end());
    return list;
  };
  bool same = false;
  if (da >= 0 && db >= 0) {
    auto la = names(da), lb = names(db);
    same = la && lb && *la == *lb;
    for (std::size_t i = 0; same && i < la->size(); ++i) {
      same = sameEntry(da, (*la)[i].c_str(), db, (*lb)[i].c_str(), deviceA, deviceB, depth + 1);
    }
  }
  if (da >= 0) ::close(da);
  if (db >= 0) ::close(db);
  return same;
}

}  // namespace

bool sameContents(const std::string& a, const std::string& b) {
  return sameContentsAt(AT_FDCWD, a, b);
}

bool sameContentsAt(int folder, const std::string& name, const std::string& b) {
  struct stat sa, sb;
  if (::fstatat(folder, name.c_str(), &sa, AT_SYMLINK_NOFOLLOW) != 0 ||
      ::lstat(b.c_str(), &sb) != 0) {
    return false;
  }
  return sameEntry(folder, name.c_str(), AT_FDCWD, b.c_str(), sa.st_dev, sb.st_dev, 0);
}

}  // namespace Core
