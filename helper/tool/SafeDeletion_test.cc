#include "helper/tool/SafeDeletion.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "testsupport/TestSupport.h"

namespace helper {
namespace {

using testsupport::TempDir;

bool exists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

const Gate kAlways = [] { return true; };

TEST(RefusalTest, PathsTheHelperNeverTouches) {
  const std::set<std::string> mounts = {"/", "/srv/data", "/home"};
  for (const char* path : {"", "relative/x", "/", "/etc", "/home", "/tmp", "/usr/", "/srv//x",
                           "/srv/./x", "/srv/../etc", "/srv/x/..", "/proc/1/mem", "/sys/kernel",
                           "/dev/sda", "/run/user/1000/x", "/srv/data"}) {
    EXPECT_TRUE(refusal(path, mounts)) << path;
  }
  for (const char* path : {"/srv/data/old", "/home/ada/.cache/x", "/tmp/ravelin/file",
                           "/var/cache/apt/archives/x.deb", "/srv/x..y", "/srv/.hidden"}) {
    EXPECT_FALSE(refusal(path, mounts)) << path << ": " << refusal(path, mounts).value_or("");
  }
}

TEST(DeleteTreeTest, FilesFoldersAndLinksGoWithoutFollowingALink) {
  TempDir tmp;
  tmp.write("outside/keep", "must stay");
  tmp.write("tree/a/b/c/file", "x");
  tmp.write("tree/file", "y");
  tmp.symlink("tree/a/to-outside", tmp / "outside");
  tmp.symlink("tree/a/to-file", tmp / "outside/keep");
  EXPECT_TRUE(deleteTree(tmp / "tree", kAlways));
  EXPECT_FALSE(exists(tmp / "tree"));
  EXPECT_TRUE(exists(tmp / "outside/keep"));
  // A link given itself is removed, not what it points at.
  tmp.symlink("link", tmp / "outside");
  EXPECT_TRUE(deleteTree(tmp / "link", kAlways));
  EXPECT_TRUE(exists(tmp / "outside/keep"));
  EXPECT_TRUE(deleteTree(tmp / "never-was", kAlways));
}

// A path through a linked folder is not followed: the link in the middle fails the path.
TEST(DeleteTreeTest, ALinkInThePathIsNotFollowed) {
  TempDir tmp;
  tmp.write("outside/keep", "must stay");
  tmp.symlink("via", tmp / "outside");
  EXPECT_FALSE(deleteTree(tmp / "via/keep", kAlways));
  EXPECT_TRUE(exists(tmp / "outside/keep"));
}

// A folder swapped for a link between being listed and being entered is removed as the link it
// has become; what the link points at stays.
TEST(DeleteTreeTest, AFolderSwappedForALinkMidwayIsNotFollowed) {
  TempDir tmp;
  tmp.write("outside/keep", "must stay");
  for (int i = 0; i < 20; ++i) tmp.write("tree/sub/f" + std::to_string(i), "z");
  tmp.write("tree/zzz", "a file listed after sub, maybe");
  bool swapped = false;
  Gate swapper = [&] {
    if (!swapped) {
      swapped = true;
      std::filesystem::remove_all(tmp / "tree/sub");
      ::symlink((tmp / "outside").c_str(), (tmp / "tree/sub").c_str());
    }
    return true;
  };
  EXPECT_TRUE(deleteTree(tmp / "tree", swapper));
  EXPECT_TRUE(swapped);
  EXPECT_FALSE(exists(tmp / "tree"));
  EXPECT_TRUE(exists(tmp / "outside/keep"));
}

TEST(DeleteTreeTest, AStopLeavesTheRest) {
  TempDir tmp;
  for (int i = 0; i < 10; ++i) tmp.write("tree/f" + std::to_string(i), "z");
  int asked = 0;
  EXPECT_FALSE(deleteTree(tmp / "tree", [&] { return ++asked < 4; }));
  EXPECT_TRUE(exists(tmp / "tree"));
  EXPECT_FALSE(std::filesystem::is_empty(tmp / "tree"));
}

// A file system mounted inside the tree, even a bind mount of the same one, is not entered: its
// files stay and the tree counts as not deleted. Needs root and a mount namespace of its own,
// made in a child process so the machine's mounts stay untouched.
TEST(DeleteTreeTest, AMountInsideTheTreeIsNotEntered) {
  TempDir tmp;
  tmp.write("elsewhere/precious", "must stay");
  tmp.write("tree/plain", "goes");
  tmp.mkdir("tree/mnt");
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount((tmp / "elsewhere").c_str(), (tmp / "tree/mnt").c_str(), nullptr, MS_BIND,
                nullptr) != 0) {
      ::_exit(77);
    }
    bool deleted = deleteTree(tmp / "tree", kAlways);
    bool ok = !deleted && exists(tmp / "tree/mnt/precious") && !exists(tmp / "tree/plain");
    ::umount((tmp / "tree/mnt").c_str());
    ::_exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    GTEST_SKIP() << "no private mount namespace here (needs root)";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(exists(tmp / "elsewhere/precious"));
}

}  // namespace
}  // namespace helper
