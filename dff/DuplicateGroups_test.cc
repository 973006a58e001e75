#include "dff/DuplicateGroups.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "dff/CoreDuplicateFileFinder.h"
#include "testsupport/TestSupport.h"

namespace Core {
namespace {

using testsupport::randomBytes;
using testsupport::TempDir;

// The search as a host runs it: resolved roots, the facade, then the groups refined.
DuplicateGroups search(const std::vector<std::string>& roots, const RefineOptions& options = {}) {
  auto finder = DuplicateFileFinder::create();
  finder->setRootFolderURLs(resolveRoots(roots).roots);
  return refineGroups(finder->find(), options);
}

// No group may hold one file (device and inode) twice.
void expectNoFileTwice(const DuplicateGroups& groups) {
  for (const auto group : groups) {
    std::set<std::pair<std::uint64_t, std::uint64_t>> seen;
    for (const auto& member : group) {
      EXPECT_TRUE(seen.insert({member.device, member.inode}).second) << groups.path(member);
    }
  }
}

std::vector<std::string> pathsOf(const DuplicateGroups& groups, std::size_t g) {
  std::vector<std::string> paths;
  for (const auto& member : groups[g]) paths.push_back(groups.path(member));
  std::sort(paths.begin(), paths.end());
  return paths;
}

TEST(ResolveRootsTest, RepeatedLinkedAndNestedRootsAreSearchedOnce) {
  TempDir tmp;
  tmp.write("t4/a/x", "one");
  tmp.symlink("t4link", "t4");
  auto resolved = resolveRoots(
      {tmp / "t4", tmp / "t4link", tmp / "t4/", tmp / "t4/./a/..", tmp / "t4/a", tmp / "missing"});
  EXPECT_EQ(resolved.roots, (std::vector<std::string>{tmp / "t4", tmp / "missing"}));
  ASSERT_EQ(resolved.dropped.size(), 4u);
  EXPECT_EQ(resolved.dropped[0].reason, "same as " + tmp / "t4");
  EXPECT_EQ(resolved.dropped[3].reason, "inside " + tmp / "t4");

  // The outer root wins whichever comes first.
  resolved = resolveRoots({tmp / "t4/a", tmp / "t4"});
  EXPECT_EQ(resolved.roots, (std::vector<std::string>{tmp / "t4"}));

  // A photo library is read from its database, not walked: it stays beside a folder holding it.
  tmp.mkdir("t4/P.photoslibrary");
  resolved = resolveRoots({tmp / "t4", tmp / "t4/P.photoslibrary"});
  EXPECT_EQ(resolved.roots.size(), 2u);
}

TEST(RefineGroupsTest, OverlappingRootsNeverMakeAFileItsOwnTwin) {
  TempDir tmp;
  std::string content = randomBytes(3000, 1);
  tmp.write("t4/x1", content);
  tmp.write("t4/sub/x2", content);
  tmp.write("other/x3", randomBytes(500, 2));
  tmp.symlink("t4link", "t4");
  // Given twice, through a link and nested: one group of two distinct files.
  auto groups = search({tmp / "t4", tmp / "t4link", tmp / "t4/sub", tmp / "other"});
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(pathsOf(groups, 0), (std::vector<std::string>{tmp / "t4/sub/x2", tmp / "t4/x1"}));
  expectNoFileTwice(groups);
}

TEST(RefineGroupsTest, HardLinksAreOneMemberUnlessAskedFor) {
  TempDir tmp;
  std::string content = randomBytes(1200, 3);
  tmp.write("d/f", content);
  ASSERT_EQ(::link((tmp / "d/f").c_str(), (tmp / "d/h1").c_str()), 0);
  ASSERT_EQ(::link((tmp / "d/f").c_str(), (tmp / "d/h2").c_str()), 0);
  // Three names of one file alone are no group.
  EXPECT_TRUE(search({tmp / "d"}).empty());

  tmp.write("e/copy", content);
  auto groups = search({tmp / "d", tmp / "e"});
  ASSERT_EQ(groups.size(), 1u);
  ASSERT_EQ(groups[0].size(), 2u);
  const auto& linked = groups.otherNameCount(groups[0][0]) == 0 ? groups[0][1] : groups[0][0];
  std::vector<std::string> names = groups.otherNames(linked);
  names.push_back(groups.path(linked));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{tmp / "d/f", tmp / "d/h1", tmp / "d/h2"}));
  EXPECT_EQ(linked.linkCount, 3u);
  // Deleting the copy frees its bytes; deleting the linked file would free them only with all
  // three names, and the plan keeps one member whole.
  EXPECT_EQ(planKeepingOne(groups).bytesFreed, 1200);
  EXPECT_EQ(bytesFreedKeepingOne(groups), 1200);  // counted as they are found

  auto listed = search({tmp / "d", tmp / "e"}, RefineOptions{.keepHardLinks = true});
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].size(), 4u);
  // Listed apart, the names still count as one file when freed space is added up.
  EXPECT_EQ(bytesFreedKeepingOne(listed), 1200);
}

TEST(RefineGroupsTest, APhotoWhoseFileIsAlsoWalkedIsOneMemberShownAsThePhoto) {
  TempDir tmp;
  std::string picture = tmp.write("Lib.photoslibrary/originals/a.jpg", randomBytes(700, 4));
  std::string copy = tmp.write("elsewhere/a-copy.jpg", randomBytes(700, 4));
  std::vector<std::vector<Duplicate>> groups = {
      {File{picture, 700}, Photo{"UUID-1", File{picture, 700}}, File{copy, 700}},
      // An old library's two rows for one master, and nothing else.
      {Photo{"UUID-1", File{picture, 700}}, Photo{"UUID-2", File{picture, 700}}}};
  auto refined = refineGroups(groups);
  ASSERT_EQ(refined.size(), 1u);
  ASSERT_EQ(refined[0].size(), 2u);
  EXPECT_EQ(refined[0][0].kind, MemberKind::photo);
  EXPECT_EQ(refined.photoID(refined[0][0]), "UUID-1");
  EXPECT_EQ(refined.otherNameCount(refined[0][0]), 0u);  // the same path is no other name
  EXPECT_EQ(refined.path(refined[0][1]), copy);
}

// Enough members that they are examined on several threads and in several windows: each member
// keeps what was found at its own path, whatever thread or window looked at it, and vanished
// members drop out where they were.
TEST(RefineGroupsTest, ManyMembersEachKeepTheirOwnIdentity) {
  TempDir tmp;
  std::vector<std::vector<Duplicate>> groups;
  std::vector<std::string> vanished;
  for (int g = 0; g < 6000; ++g) {
    std::vector<Duplicate> group;
    for (int m = 0; m < 3; ++m) {
      std::string path = tmp / (std::to_string(g) + "-" + std::to_string(m));
      if (m == 1 && g % 5 == 0) {
        tmp.mkdir(std::to_string(g) + "-" + std::to_string(m));  // a folder member
      } else if (m == 2 && g % 7 == 0) {
        vanished.push_back(path);  // never made
      } else {
        ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0644));
      }
      group.push_back(File{path, 0});
    }
    groups.push_back(std::move(group));
  }
  auto refined = refineGroups(groups);
  ASSERT_EQ(refined.size(), groups.size());
  for (std::size_t g = 0; g < refined.size(); ++g) {
    ASSERT_EQ(refined[g].size(), g % 7 == 0 ? 2u : 3u) << g;
    for (const auto& member : refined[g]) {
      struct stat status;
      const std::string path = refined.path(member);
      ASSERT_EQ(::lstat(path.c_str(), &status), 0);
      EXPECT_EQ(member.inode, status.st_ino) << path;
      EXPECT_EQ(member.kind == MemberKind::folder, S_ISDIR(status.st_mode)) << path;
    }
  }
}

TEST(PlanKeepingOneTest, FolderGroupsComeFirstAndNoByteIsCountedTwice) {
  TempDir tmp;
  std::string ten = randomBytes(10000, 5), five = randomBytes(5000, 6);
  tmp.write("a/f1", ten);
  tmp.write("a/f2", five);
  tmp.write("b/f1", ten);
  tmp.write("b/f2", five);
  tmp.write("c/third", ten);
  tmp.write("c/x", "abc");
  tmp.write("c/y", "abc");
  auto groups = search({tmp.path()});
  expectNoFileTwice(groups);
  // {c/x, c/y}, {a/f1, b/f1, c/third} and the folders {a, b}.
  ASSERT_EQ(groups.size(), 3u);
  EXPECT_EQ(groups[groups.size() - 1].front().kind, MemberKind::folder);

  auto plan = planKeepingOne(groups);
  // One of the folders goes with all it holds, one copy of "abc" and the third copy of f1.
  EXPECT_EQ(plan.bytesFreed, 15000 + 3 + 10000);
  EXPECT_EQ(bytesFreedKeepingOne(groups), plan.bytesFreed);
  std::set<std::string> deleted;
  for (const auto& target : plan.deletions) deleted.insert(std::string(target.path));
  EXPECT_EQ(deleted.size(), 3u);
  // The kept copy of f1 lies in the kept folder: the clean-up leaves one of everything.
  std::string keptFolder = deleted.count(tmp / "a") ? tmp / "b" : tmp / "a";
  EXPECT_TRUE(deleted.count(tmp / "c/third") == 1);
  for (const auto& kept : plan.kept) {
    EXPECT_EQ(deleted.count(std::string(kept)), 0u);
    if (kept.find("/f1") != std::string::npos) {
      EXPECT_EQ(kept, keptFolder + "/f1");
    }
  }
}

TEST(PlanKeepingOneTest, NothingThatHoldsAKeptMemberIsDeleted) {
  TempDir tmp;
  std::string inner = tmp.write("outer/inner/f", "x");
  std::string outer = tmp / "outer";
  // A group of files whose kept member lies in a folder that is a member too (a file that became
  // a folder after the search): the folder stays.
  auto groups = refineGroups(std::vector<std::vector<Duplicate>>{{File{inner, 1}, File{outer, 1}}});
  ASSERT_EQ(groups[0][1].kind, MemberKind::folder);
  auto plan = planKeepingOne(groups);
  EXPECT_TRUE(plan.deletions.empty());
  EXPECT_EQ(bytesFreedKeepingOne(groups), 0);
  EXPECT_EQ(plan.kept, std::vector<std::string_view>{inner});
}

// A path given in two groups is deleted, and counted, once: the report's count takes the plan's
// longer way when names repeat.
TEST(PlanKeepingOneTest, ANameInTwoGroupsIsCountedOnce) {
  TempDir tmp;
  std::string content = randomBytes(800, 13);
  std::string x = tmp.write("x", content), y = tmp.write("y", content), z = tmp.write("z", content);
  auto groups = refineGroups(std::vector<std::vector<Duplicate>>{{File{x, 800}, File{y, 800}},
                                                                 {File{z, 800}, File{y, 800}}});
  ASSERT_EQ(groups.size(), 2u);
  auto plan = planKeepingOne(groups);
  ASSERT_EQ(plan.deletions.size(), 1u);
  EXPECT_EQ(plan.deletions[0].path, y);
  EXPECT_EQ(plan.bytesFreed, 800);
  EXPECT_EQ(bytesFreedKeepingOne(groups), 800);
}

// A folder mounted inside itself shows every file under a second path. Needs root and a mount
// namespace of its own, made in a child process so the machine's mounts stay untouched.
TEST(RefineGroupsTest, AFolderBindMountedInsideItselfListsNoFileTwice) {
  TempDir tmp;
  std::string content = randomBytes(2000, 7);
  tmp.write("t4/x", content);
  tmp.write("t4/sub/y", content);
  tmp.mkdir("t4/mnt");
  auto answer = testsupport::inMountNamespace({{tmp / "t4", tmp / "t4/mnt"}}, [&] {
    auto groups = search({tmp / "t4", tmp / "t4/mnt"});
    bool ok = groups.size() == 1 && groups[0].size() == 2;
    for (const auto group : groups) {
      std::set<std::pair<std::uint64_t, std::uint64_t>> seen;
      for (const auto& member : group) ok &= seen.insert({member.device, member.inode}).second;
    }
    return ok ? 0 : 1;
  });
  if (!answer) GTEST_SKIP() << "no private mount namespace here (needs root)";
  EXPECT_EQ(*answer, 0);
}

// Only bytes decide what is deleted: names, link targets and every byte of every file count, and
// nothing is followed.
TEST(SameContentsTest, FilesLinksAndFoldersByTheirBytes) {
  TempDir tmp;
  std::string content = randomBytes(70000, 9);
  tmp.write("a/f", content);
  tmp.write("a/sub/g", "small");
  tmp.symlink("a/link", "../elsewhere");
  tmp.write("b/f", content);
  tmp.write("b/sub/g", "small");
  tmp.symlink("b/link", "../elsewhere");
  EXPECT_TRUE(sameContents(tmp / "a", tmp / "b"));
  EXPECT_TRUE(sameContents(tmp / "a/f", tmp / "b/f"));

  std::string changed = content;
  changed[69999] ^= 1;  // the last byte only
  tmp.write("b/f", changed);
  EXPECT_FALSE(sameContents(tmp / "a", tmp / "b"));
  EXPECT_FALSE(sameContents(tmp / "a/f", tmp / "b/f"));
  tmp.write("b/f", content + "x");  // grown
  EXPECT_FALSE(sameContents(tmp / "a/f", tmp / "b/f"));
  tmp.write("b/f", content);

  ::unlink((tmp / "b/link").c_str());
  tmp.symlink("b/link", "../other");
  EXPECT_FALSE(sameContents(tmp / "a", tmp / "b"));
  ::unlink((tmp / "b/link").c_str());
  tmp.symlink("b/link", "../elsewhere");
  tmp.write("b/sub/renamed", "small");
  ::unlink((tmp / "b/sub/g").c_str());
  EXPECT_FALSE(sameContents(tmp / "a", tmp / "b"));  // names count here

  // A link to an identical file is no copy of it.
  tmp.symlink("c", tmp / "a/f");
  EXPECT_FALSE(sameContents(tmp / "a/f", tmp / "c"));
  EXPECT_FALSE(sameContents(tmp / "a/f", tmp / "missing"));
}

TEST(KeepRuleTest, WhichMemberStays) {
  TempDir tmp;
  std::string content = randomBytes(900, 10);
  tmp.write("long/way/down/copy", content);
  tmp.write("mid/copy", content);
  tmp.write("mid/other", randomBytes(77, 12));  // so the folders differ
  tmp.write("x", content);
  tmp.age("long/way/down/copy", 3000);
  tmp.age("mid/copy", 1000);
  tmp.age("x", 2000);
  auto finder = DuplicateFileFinder::create();
  finder->setRootFolderURLs({tmp.path()});
  auto groups = refineGroups(finder->find());
  ASSERT_EQ(groups.size(), 1u);
  auto kept = [&](KeepRule rule) { return std::string(planKeepingOne(groups, rule).kept.at(0)); };
  EXPECT_EQ(kept({KeepRule::Choice::newest, std::nullopt}), tmp / "mid/copy");
  EXPECT_EQ(kept({KeepRule::Choice::oldest, std::nullopt}), tmp / "long/way/down/copy");
  EXPECT_EQ(kept({KeepRule::Choice::shortestPath, std::nullopt}), tmp / "x");
  EXPECT_EQ(kept({KeepRule::Choice::shortestPath, tmp / "long"}), tmp / "long/way/down/copy");
  auto plan = planKeepingOne(groups, {KeepRule::Choice::newest, std::nullopt});
  ASSERT_EQ(plan.deletions.size(), 2u);
  for (const auto& target : plan.deletions) EXPECT_EQ(target.keptPath, tmp / "mid/copy");
}

// With hard links listed apart, a name of the kept file is never planned for deletion.
TEST(KeepRuleTest, TheKeptFilesOtherNamesStay) {
  TempDir tmp;
  std::string content = randomBytes(500, 11);
  tmp.write("a", content);
  ASSERT_EQ(::link((tmp / "a").c_str(), (tmp / "b").c_str()), 0);
  tmp.write("c", content);
  std::vector<std::vector<Duplicate>> found = {
      {File{tmp / "a", 500}, File{tmp / "b", 500}, File{tmp / "c", 500}}};
  auto groups = refineGroups(found, RefineOptions{.keepHardLinks = true});
  ASSERT_EQ(groups[0].size(), 3u);
  auto plan = planKeepingOne(groups);
  ASSERT_EQ(plan.deletions.size(), 1u);
  EXPECT_EQ(plan.deletions[0].path, tmp / "c");
}

}  // namespace
}  // namespace Core
