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

const File& GroupMember::file() const {
  if (auto* photo = std::get_if<Photo>(&item)) return photo->file;
  return std::get<File>(item);
}

std::vector<DuplicateGroup> refineGroups(std::vector<std::vector<Duplicate>> groups,
                                         const RefineOptions& options) {
  // Members are examined ahead of their turn, a window of them at a time, on as many threads as
  // there are processors: a search may give a million of them, and the rest of the work is quick
  // by comparison. The window bounds what is held: a stat for each member at once would double
  // the memory of a search of a million files.
  std::vector<const std::string*> paths;
  for (const auto& group : groups) {
    for (const auto& item : group) {
      paths.push_back(std::holds_alternative<Photo>(item) ? &std::get<Photo>(item).file.url
                                                          : &std::get<File>(item).url);
    }
  }
  struct Examined {
    struct stat status;
    bool present;
  };
  constexpr std::size_t kWindow = 1 << 14;
  std::vector<Examined> examined;
  std::size_t windowStart = 0;
  auto examinedAt = [&](std::size_t index) -> const Examined& {
    if (index >= windowStart + examined.size()) {
      windowStart = index;
      examined.resize(std::min(kWindow, paths.size() - index));
      auto examine = [&](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
          examined[i].present = ::lstat(paths[windowStart + i]->c_str(), &examined[i].status) == 0;
        }
      };
      const std::size_t threads =
          std::min<std::size_t>(platform::processorCount(), 1 + examined.size() / 4096);
      const std::size_t share = (examined.size() + threads - 1) / threads;
      std::vector<std::thread> helpers;
      for (std::size_t t = 1; t < threads; ++t) {
        helpers.emplace_back(examine, std::min(examined.size(), t * share),
                             std::min(examined.size(), (t + 1) * share));
      }
      examine(0, std::min(examined.size(), share));
      for (auto& helper : helpers) helper.join();
    }
    return examined[index - windowStart];
  };

  std::vector<DuplicateGroup> refined;
  std::size_t next = 0;
  for (auto& group : groups) {
    DuplicateGroup members;
    std::map<Identity, std::size_t> seen;
    for (auto& item : group) {
      // Examined before its path moves out: the window may begin with it.
      const Examined& looked = examinedAt(next++);
      GroupMember member;
      member.item = std::move(item);
      const std::string& path = member.file().url;
      // A member that can no longer be examined can't be shown as a copy of anything.
      if (!looked.present) continue;
      const struct stat& status = looked.status;
      if (std::holds_alternative<Photo>(member.item)) {
        member.kind = MemberKind::photo;
      } else if (S_ISDIR(status.st_mode)) {
        member.kind = platform::isPackage(path) ? MemberKind::package : MemberKind::folder;
      }
      member.device = status.st_dev;
      member.inode = status.st_ino;
      member.linkCount = status.st_nlink;
      member.modified = status.st_mtim.tv_sec;

      Identity identity{member.device, member.inode};
      auto found = seen.find(identity);
      if (found != seen.end()) {
        GroupMember& first = members[found->second];
        bool samePath = first.file().url == path;
        bool photoAndFile = (first.kind == MemberKind::photo) != (member.kind == MemberKind::photo);
        if (!options.keepHardLinks || samePath || photoAndFile) {
          // One file met twice: shown once, as the photo if it is one.
          if (member.kind == MemberKind::photo && first.kind != MemberKind::photo) {
            std::string firstPath = first.file().url;
            member.otherNames = std::move(first.otherNames);
            first = std::move(member);
            if (firstPath != first.file().url) first.otherNames.push_back(std::move(firstPath));
          } else if (!samePath && std::find(first.otherNames.begin(), first.otherNames.end(),
                                            path) == first.otherNames.end()) {
            first.otherNames.push_back(path);
          }
          continue;
        }
      } else {
        seen.emplace(identity, members.size());
      }
      members.push_back(std::move(member));
    }
    if (members.size() >= 2) refined.push_back(std::move(members));
    group = {};  // its members moved out; the paths ahead of the window are in later groups
  }
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
bool below(const std::string& path, const std::string& folder) {
  if (folder == "/") return true;
  return path.size() >= folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         (path.size() == folder.size() || path[folder.size()] == '/');
}

// The member to keep among `candidates` (in group order), by `rule`.
const GroupMember* chooseKept(const std::vector<const GroupMember*>& candidates,
                              const KeepRule& rule) {
  std::vector<const GroupMember*> pool = candidates;
  if (rule.keepUnder) {
    std::vector<const GroupMember*> under;
    for (const auto* member : pool) {
      if (below(member->file().url, *rule.keepUnder)) under.push_back(member);
    }
    if (!under.empty()) pool = under;
  }
  const GroupMember* best = pool.front();
  for (const auto* member : pool) {
    switch (rule.choice) {
      case KeepRule::Choice::first:
        break;
      case KeepRule::Choice::newest:
        if (modifiedAt(member->file().url) > modifiedAt(best->file().url)) best = member;
        break;
      case KeepRule::Choice::oldest:
        if (modifiedAt(member->file().url) < modifiedAt(best->file().url)) best = member;
        break;
      case KeepRule::Choice::shortestPath:
        if (member->file().url.size() < best->file().url.size()) best = member;
        break;
    }
  }
  return best;
}

}  // namespace

namespace {

// The plan, with its targets and kept members listed when `listed`; otherwise only what it
// frees and the groups it leaves alone.
KeepOnePlan plan(const std::vector<DuplicateGroup>& groups, const KeepRule& rule, bool listed) {
  KeepOnePlan plan;
  // Only a folder or a package holds other paths: the questions about what lies inside what
  // look up sorted sets of those alone, and whole paths are looked up by hashing. Every path
  // here is a view of a name in `groups`.
  std::unordered_set<std::string_view> keptPaths, targetPaths;
  std::set<std::string_view> keptSorted, folderTargets;
  auto holds = [](MemberKind kind) {
    return kind == MemberKind::folder || kind == MemberKind::package;
  };
  struct Candidate {
    KeepOnePlan::Target target;
    const GroupMember* member;  // whose name it is
  };
  std::vector<Candidate> candidates;
  FreedBytes freed;
  // What deleting a target frees.
  auto account = [&](std::string_view target, const GroupMember& member) {
    if (member.kind == MemberKind::file) {
      // A file was examined when its group was refined: each of its names counts once.
      freed.add(Identity{member.device, member.inode}, member.file().size, member.linkCount);
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
  };

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
  // Calls `body` with each name of `member`.
  auto forEachName = [](const GroupMember& member, auto&& body) {
    body(std::string_view(member.file().url));
    for (const auto& name : member.otherNames) body(std::string_view(name));
  };

  // Folders and packages first: a file group then keeps a copy that outlives them.
  std::vector<const DuplicateGroup*> order;
  for (const auto& group : groups) {
    if (holds(group.front().kind)) order.push_back(&group);
  }
  for (const auto& group : groups) {
    if (!holds(group.front().kind)) order.push_back(&group);
  }

  // Without folders or packages no target lies inside another: when the targets aren't
  // listed, each is counted as it is found, and none is kept.
  const bool direct = !listed && (order.empty() || !holds(order.front()->front().kind));
  if (!direct) {
    // Every member but one of each group may become a target.
    std::size_t most = 0;
    for (const auto& group : groups) {
      for (const auto& member : group) most += 1 + member.otherNames.size();
    }
    candidates.reserve(most);
  }
  if (listed) plan.kept.reserve(groups.size());

  std::vector<const GroupMember*> free;
  for (const DuplicateGroup* group : order) {
    free.clear();
    for (const auto& member : *group) {
      if (!insideTarget(member.file().url)) free.push_back(&member);
    }
    const GroupMember* keep = free.empty() ? nullptr : chooseKept(free, rule);
    if (keep == nullptr) {
      ++plan.groupsLeftAlone;
      continue;
    }
    // Only a folder or a package asks what it holds, and every such group is decided before
    // the first group of files: the kept files need no sorted set.
    const bool holding = holds(group->front().kind);
    forEachName(*keep, [&](std::string_view name) {
      keptPaths.insert(name);
      if (holding) keptSorted.insert(name);
    });
    if (listed) plan.kept.push_back(keep->file().url);
    for (const auto& member : *group) {
      if (&member == keep) continue;
      // The same file as the kept one under another name: deleting it frees nothing and would
      // take a name the user sees away.
      if (member.device == keep->device && member.inode == keep->inode) continue;
      std::optional<std::string_view> photoID;
      if (auto* photo = std::get_if<Photo>(&member.item)) photoID = photo->id;
      forEachName(member, [&](std::string_view name) {
        if (insideTarget(name) || holdsKept(name, member.kind)) return;
        if (direct) {
          account(name, member);
        } else {
          candidates.push_back({{name, member.kind, keep->file().url, photoID}, &member});
        }
        addTarget(name, member.kind);
      });
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
    account(candidate.target.path, *candidate.member);
    if (listed) plan.deletions.push_back(candidate.target);
  }
  plan.bytesFreed = freed.total();
  return plan;
}

}  // namespace

KeepOnePlan planKeepingOne(const std::vector<DuplicateGroup>& groups, const KeepRule& rule) {
  return plan(groups, rule, true);
}

std::int64_t bytesFreedKeepingOne(const std::vector<DuplicateGroup>& groups, const KeepRule& rule) {
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
