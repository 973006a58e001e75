#include "platform/TreeDeletion.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/Files.h"
#include "testsupport/TestSupport.h"

namespace platform {
namespace {

using testsupport::TempDir;

bool exists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

// Each case runs with one thread, and with two sharing a folder's deletion.
class TreeDeletionTest : public ::testing::TestWithParam<unsigned> {
 protected:
  TreeDeletionOptions threaded() const {
    TreeDeletionOptions options;
    options.threads = GetParam();
    return options;
  }
  TreeDeletion run(const std::string& path) const { return deleteTree(path, threaded()); }
};

INSTANTIATE_TEST_SUITE_P(Threads, TreeDeletionTest, ::testing::Values(1u, 2u));

TEST_P(TreeDeletionTest, FilesFoldersAndLinksGoWithoutFollowingALink) {
  TempDir tmp;
  tmp.write("outside/keep", "must stay");
  tmp.write("tree/a/b/c/file", "x");
  tmp.write("tree/file", "y");
  tmp.symlink("tree/a/to-outside", tmp / "outside");
  tmp.symlink("tree/a/to-file", tmp / "outside/keep");
  TreeDeletion tree = run(tmp / "tree");
  EXPECT_EQ(tree.error, 0) << tree.failedPath;
  EXPECT_EQ(tree.removed, 8u);
  EXPECT_FALSE(exists(tmp / "tree"));
  // A link given itself is removed, not what it points at; what isn't there is gone already.
  tmp.symlink("link", tmp / "outside");
  EXPECT_EQ(run(tmp / "link").error, 0);
  EXPECT_EQ(run(tmp / "never/was").error, 0);
  EXPECT_TRUE(exists(tmp / "outside/keep"));
  for (const std::string& path : std::vector<std::string>{"/", tmp / "outside/..", "relative",
                                                          tmp / "outside/../outside/keep",
                                                          tmp.path() + std::string("/\0x", 3)}) {
    EXPECT_EQ(run(path).error, EINVAL) << path;
  }
  EXPECT_TRUE(exists(tmp / "outside/keep"));
}

// Links above the item: none for root's helper; for the user, only those no one else could
// have put there.
TEST_P(TreeDeletionTest, LinksAboveTheItemAreFollowedOnlyWhenTrusted) {
  TempDir tmp;
  tmp.write("real/a", "x");
  tmp.write("real/b", "x");
  tmp.symlink("mine", tmp / "real");
  TreeDeletionOptions none = threaded();
  none.parentLinks = ParentLinks::none;
  EXPECT_EQ(deleteTree(tmp / "mine/a", none).error, ELOOP);
  EXPECT_TRUE(exists(tmp / "real/a"));
  EXPECT_EQ(run(tmp / "mine/a").error, 0);
  EXPECT_FALSE(exists(tmp / "real/a"));
  if (::geteuid() != 0) return;
  // A link of another user's, or one in a folder that others may change, is not followed.
  tmp.mkdir("shared");
  ::chmod((tmp / "shared").c_str(), 0777);
  tmp.symlink("shared/link", tmp / "real");
  EXPECT_EQ(run(tmp / "shared/link/b").error, ELOOP);
  ::lchown((tmp / "mine").c_str(), 65534, 65534);
  EXPECT_EQ(run(tmp / "mine/b").error, ELOOP);
  EXPECT_TRUE(exists(tmp / "real/b"));
}

// A folder swapped for a link between being listed and being entered is removed as the link it
// has become; what the link points at stays.
TEST_P(TreeDeletionTest, AFolderSwappedForALinkMidwayIsNotFollowed) {
  TempDir tmp;
  tmp.write("outside/keep", "must stay");
  for (int i = 0; i < 20; ++i) tmp.write("tree/sub/f" + std::to_string(i), "z");
  tmp.write("tree/zzz", "a file listed after sub, maybe");
  bool swapped = false;
  TreeDeletionOptions options = threaded();
  options.goOn = [&] {
    if (!swapped) {
      swapped = true;
      std::filesystem::remove_all(tmp / "tree/sub");
      ::symlink((tmp / "outside").c_str(), (tmp / "tree/sub").c_str());
    }
    return true;
  };
  EXPECT_EQ(deleteTree(tmp / "tree", options).error, 0);
  EXPECT_TRUE(swapped);
  EXPECT_FALSE(exists(tmp / "tree"));
  EXPECT_TRUE(exists(tmp / "outside/keep"));
}

// The folder kept open for the next path in it is the one the first path was found in: a folder
// swapped for a link between two paths doesn't lead the second one elsewhere.
TEST_P(TreeDeletionTest, AFolderKeptOpenForTheNextPathIsNeverALink) {
  TempDir tmp;
  tmp.write("outside/f2", "must stay");
  tmp.write("list/f1", "1");
  tmp.write("list/f2", "2");
  ParentFolderCache parents;
  TreeDeletionOptions options = threaded();
  options.parents = &parents;
  EXPECT_EQ(deleteTree(tmp / "list/f1", options).error, 0);
  std::filesystem::rename(tmp / "list", tmp / "moved");
  std::filesystem::create_directory_symlink(tmp / "outside", tmp / "list");
  EXPECT_EQ(deleteTree(tmp / "list/f2", options).error, 0);
  EXPECT_TRUE(exists(tmp / "outside/f2"));
  EXPECT_FALSE(exists(tmp / "moved/f2"));
  // Another folder is opened afresh, and so is a name the cache can't stand for.
  tmp.write("other/f3", "3");
  EXPECT_EQ(deleteTree(tmp / "other/f3", options).error, 0);
  EXPECT_FALSE(exists(tmp / "other/f3"));
  EXPECT_EQ(deleteTree(tmp / "other/..", options).error, EINVAL);
}

// A folder wide enough for the threads to share: whether it ends, stops or fails part way, the
// answer counts what went, and a failure names the entry that stayed.
TEST_P(TreeDeletionTest, WhatWentIsCountedWhereverItEnds) {
  enum Ending { whole, stop, failure };
  for (Ending ending : {whole, stop, failure}) {
    TempDir tmp;
    for (int folder = 0; folder < 12; ++folder) {
      for (int file = 0; file < 20; ++file) {
        tmp.write("tree/d" + std::to_string(folder) + "/sub/f" + std::to_string(file), "z");
      }
    }
    const std::uint64_t entries = 1 + 12 * 22;
    int asked = 0;
    TreeDeletionOptions options = threaded();
    options.stopAtFirstFailure = true;
    if (ending == stop) options.goOn = [&] { return ++asked < 100; };
    TreeDeletion outcome;
    testsupport::withoutPermissionOverride([&] {
      if (ending == failure) ::chmod((tmp / "tree/d5/sub").c_str(), 0555);
      outcome = deleteTree(tmp / "tree", options);
      ::chmod((tmp / "tree/d5/sub").c_str(), 0755);
    });
    std::uint64_t left = 0;
    if (exists(tmp / "tree")) {
      left = 1 + std::distance(std::filesystem::recursive_directory_iterator(tmp / "tree"), {});
    }
    EXPECT_EQ(outcome.removed, entries - left) << ending;
    EXPECT_EQ(outcome.interrupted, ending == stop) << ending;
    EXPECT_EQ(left == 0, ending == whole) << ending;
    if (ending == failure) {
      EXPECT_EQ(outcome.error, EACCES);
      EXPECT_EQ(outcome.failedPath.rfind(tmp / "tree/d5/sub/f", 0), 0u) << outcome.failedPath;
    }
  }
}

// Paths far beyond PATH_MAX, with fewer descriptors than levels.
TEST_P(TreeDeletionTest, ATreeDeeperThanPathMaxGoesWithinTheDescriptorLimit) {
  TempDir tmp;
  int fd = ::open(tmp.mkdir("deep").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (int level = 0; level < 3000; ++level) {
    ASSERT_EQ(::mkdirat(fd, "level", 0755), 0);
    int next = ::openat(fd, "level", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::close(fd);
    fd = next;
  }
  ::close(::openat(fd, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  ::close(fd);
  rlimit saved{};
  ::getrlimit(RLIMIT_NOFILE, &saved);
  rlimit few = saved;
  few.rlim_cur = 256;
  ::setrlimit(RLIMIT_NOFILE, &few);
  TreeDeletion deep = run(tmp / "deep");
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(deep.error, 0) << deep.failedPath.size();
  EXPECT_EQ(deep.removed, 3002u);
  EXPECT_FALSE(exists(tmp / "deep"));
}

// Another file system, even a bind mount of the same one, is not entered, and a mount point
// named directly is not emptied. Needs root and a mount namespace of its own, made in a child
// process so that the machine's mounts stay untouched.
TEST_P(TreeDeletionTest, MountsAreNeverEntered) {
  TempDir tmp;
  tmp.write("elsewhere/precious", "must stay");
  tmp.write("tree/plain", "goes");
  tmp.mkdir("tree/mnt");
  tmp.mkdir("point");
  auto answer = testsupport::inMountNamespace(
      {{tmp / "elsewhere", tmp / "tree/mnt"}, {tmp / "elsewhere", tmp / "point"}}, [&] {
        TreeDeletion inside = run(tmp / "tree");
        TreeDeletion named = run(tmp / "point");
        bool ok = inside.error == EXDEV && inside.failedPath == tmp / "tree/mnt" &&
                  !exists(tmp / "tree/plain") && named.error == EBUSY &&
                  exists(tmp / "point/precious") && exists(tmp / "tree/mnt/precious");
        // Where the kernel tells no mount ids, devices still tell another file system apart.
        detail::setMountIdentifiersUnavailable(true);
        ::mkdir((tmp / "again").c_str(), 0755);
        ::mkdir((tmp / "again/mnt").c_str(), 0755);
        ::mount("tmpfs", (tmp / "again/mnt").c_str(), "tmpfs", 0, nullptr);
        ::close(::open((tmp / "again/mnt/precious").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        TreeDeletion blind = run(tmp / "again");
        TreeDeletion blindNamed = run(tmp / "again/mnt");
        ok = ok && blind.error == EXDEV && blindNamed.error == EBUSY &&
             exists(tmp / "again/mnt/precious");
        ::umount((tmp / "again/mnt").c_str());
        return ok ? 0 : 1;
      });
  if (!answer) GTEST_SKIP() << "no private mount namespace here (needs root)";
  EXPECT_EQ(*answer, 0);
  EXPECT_TRUE(exists(tmp / "elsewhere/precious"));
}

// A file system whose listings give no entry type (ext2 made without "filetype"): every entry
// is examined, and what isn't a folder is unlinked. Root only, in a mount namespace of its own.
TEST_P(TreeDeletionTest, ListingsWithoutTypesAreDeletedWhole) {
  if (::geteuid() != 0 || !std::filesystem::exists("/sbin/mkfs.ext2") ||
      !std::filesystem::exists("/dev/loop-control")) {
    GTEST_SKIP() << "needs root, mkfs.ext2 and loop devices";
  }
  TempDir tmp;
  const std::string image = tmp / "ext2.img";
  {
    int fd = ::open(image.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_EQ(::ftruncate(fd, 16 << 20), 0);
    ::close(fd);
  }
  const std::string make = "/sbin/mkfs.ext2 -q -F -O ^filetype '" + image + "' >/dev/null 2>&1";
  ASSERT_EQ(std::system(make.c_str()), 0);
  const std::string mountPoint = tmp.mkdir("mnt");
  auto answer = testsupport::inMountNamespace({}, [&] {
    const std::string attach =
        "/bin/mount -o loop -t ext2 '" + image + "' '" + mountPoint + "' >/dev/null 2>&1";
    if (std::system(attach.c_str()) != 0) return 77;
    const std::string tree = mountPoint + "/tree";
    std::filesystem::create_directories(tree + "/a/b");
    for (const char* name : {"/f", "/a/g", "/a/b/h"}) {
      int fd = ::open((tree + name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
      ::close(fd);
    }
    ::symlink("/etc/passwd", (tree + "/a/link").c_str());
    ::mkfifo((tree + "/a/b/pipe").c_str(), 0644);
    TreeDeletion outcome = run(tree);
    bool ok = outcome.error == 0 && outcome.removed == 8 && !exists(tree);
    ::umount2(mountPoint.c_str(), MNT_DETACH);
    return ok ? 0 : 1;
  });
  if (!answer) GTEST_SKIP() << "no loop mount here";
  EXPECT_EQ(*answer, 0);
  EXPECT_TRUE(exists("/etc/passwd"));
}

}  // namespace
}  // namespace platform
