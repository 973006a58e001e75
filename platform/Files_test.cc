#include "platform/Files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "platform/Locations.h"
#include "testsupport/TestSupport.h"

namespace platform {
namespace {

using testsupport::TempDir;

const DirectoryEntry* entryNamed(const std::vector<DirectoryEntry>& entries,
                                 const std::string& name) {
  auto it = std::find_if(entries.begin(), entries.end(),
                         [&](const DirectoryEntry& e) { return e.name == name; });
  return it == entries.end() ? nullptr : &*it;
}

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tmp_.write("dir/file.txt", "12345");
    tmp_.mkdir("dir/sub");
    tmp_.symlink("dir/to-sub", "sub");
    tmp_.symlink("dir/dangling", "nowhere");
    tmp_.write(std::string("dir/odd\nname\xff"), "x");
  }
  TempDir tmp_;
};

// Entries come with their type and size; a link is a link unless following is asked for, and
// a dangling one stays a link either way; failures come back as values.
TEST_F(FilesTest, ListsAndExaminesWithoutFollowingLinksUnlessAsked) {
  auto listing = listDirectory(tmp_ / "dir");
  ASSERT_TRUE(listing.ok()) << listing.error().message();
  EXPECT_EQ(listing->size(), 5u);
  auto* file = entryNamed(*listing, "file.txt");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->type, FileType::regular);
  EXPECT_EQ(file->fileSize, 5);
  EXPECT_TRUE(entryNamed(*listing, "sub")->isDirectory());
  EXPECT_EQ(entryNamed(*listing, "to-sub")->type, FileType::symbolicLink);
  EXPECT_NE(entryNamed(*listing, std::string("odd\nname\xff")), nullptr);
  auto followed = listDirectory(tmp_ / "dir", Follow::yes);
  ASSERT_TRUE(followed.ok());
  EXPECT_EQ(entryNamed(*followed, "to-sub")->type, FileType::directory);
  EXPECT_EQ(entryNamed(*followed, "dangling")->type, FileType::symbolicLink);

  EXPECT_EQ(listDirectory(tmp_ / "missing").error().code, ENOENT);
  EXPECT_FALSE(listDirectory(tmp_ / "missing").error().message().empty());
  EXPECT_EQ(listDirectory(tmp_ / "dir/file.txt").error().code, ENOTDIR);
  EXPECT_EQ(listDirectory(tmp_ / "dir/to-sub").error().code, ENOTDIR);
  EXPECT_TRUE(listDirectory(tmp_ / "dir/to-sub", Follow::yes).ok());

  EXPECT_TRUE(fileExists(tmp_ / "dir/dangling"));
  EXPECT_FALSE(fileExists(tmp_ / "dir/dangling", Follow::yes));
  EXPECT_FALSE(isDirectory(tmp_ / "dir/to-sub"));
  EXPECT_TRUE(isDirectory(tmp_ / "dir/to-sub", Follow::yes));
  auto status = fileStatus(tmp_ / "dir/file.txt");
  ASSERT_TRUE(status.ok());
  EXPECT_EQ(status->size, 5);
  EXPECT_EQ(status->linkCount, 1u);

  std::string locked = tmp_.mkdir("locked");
  tmp_.write("locked/inside", "x");
  ::chmod(locked.c_str(), 0);
  testsupport::withoutPermissionOverride(
      [&] { EXPECT_EQ(listDirectory(locked).error().code, EACCES); });
}

// Resolved as a process whose root is the folder would resolve the path, with the kernel's
// openat2 and with the walk that stands in for it on older kernels.
TEST(PathTest, ResolvingInARootNeverLeadsOutOfIt) {
  TempDir root;
  root.mkdir("etc");
  root.mkdir("b");
  root.symlink("up", "../../../../../../etc");
  root.symlink("absolute", "/b");
  root.symlink("dotted", "/../../b/../etc");
  root.symlink("loop1", "loop2");
  root.symlink("loop2", "loop1");
  root.symlink("b/parent", "..");
  const std::string r = root.path();
  struct Case {
    const char* path;
    Follow follow;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {"/", Follow::yes, r},
      {"/../../../etc/passwd", Follow::yes, r + "/etc/passwd"},
      {"/up/passwd", Follow::yes, r + "/etc/passwd"},
      {"/up", Follow::no, r + "/up"},
      {"/absolute/c", Follow::yes, r + "/b/c"},
      {"/dotted", Follow::yes, r + "/etc"},
      {"/b/parent/b/parent/etc", Follow::yes, r + "/etc"},
      {"/missing/../../x", Follow::yes, r + "/x"},
      {"/etc/missing/../../../y", Follow::yes, r + "/y"},
      {"/loop1/x", Follow::yes, std::nullopt},
  };
  for (bool openat2 : {true, false}) {
    detail::setOpenat2Unavailable(!openat2);
    for (const auto& c : cases) {
      EXPECT_EQ(resolveInRoot(r, c.path, c.follow), c.expected)
          << c.path << (openat2 ? " with openat2" : " walked");
    }
  }
  detail::setOpenat2Unavailable(false);
}

TEST(PathTest, JoinsAndSplitsComponents) {
  EXPECT_EQ(joinPath("/a", "b"), "/a/b");
  EXPECT_EQ(joinPath("/a/", "b"), "/a/b");
  EXPECT_EQ(joinPath("/", "b"), "/b");
  EXPECT_EQ(lastPathComponent("/a/b.txt"), "b.txt");
  EXPECT_EQ(lastPathComponent("/a/b/"), "b");
  EXPECT_EQ(lastPathComponent("/"), "");
  EXPECT_EQ(deletingLastPathComponent("/a/b"), "/a");
  EXPECT_EQ(deletingLastPathComponent("/a"), "/");
  EXPECT_EQ(deletingLastPathComponent("a"), "");
}

TEST(LocationsTest, MountInfoIsParsedWithEscapesAndMalformedLinesSkipped) {
  auto mounts = parseMountInfo(
      "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
      "garbage line\n"
      "40 22 8:17 / /media/My\\040Disk rw - vfat /dev/sdb1 rw\n"
      "41 22 0:5 / /proc rw - proc proc rw\n"
      "42 22 0:6 / /x rw -\n");
  ASSERT_EQ(mounts.size(), 3u);
  EXPECT_EQ(mounts[0].path, "/");
  EXPECT_EQ(mounts[0].type, "ext4");
  EXPECT_EQ(mounts[0].device, "8:1");
  EXPECT_EQ(mounts[0].source, "/dev/sda1");
  EXPECT_EQ(mounts[1].path, "/media/My Disk");
  EXPECT_EQ(mounts[1].type, "vfat");
}

TEST(LocationsTest, MountTrashFoldersFollowTheFreedesktopRules) {
  TempDir tmp;
  std::string shared = tmp.mkdir("disk/.Trash");
  ::chmod(shared.c_str(), 01777);
  tmp.mkdir("disk/.Trash/1000/files");
  tmp.mkdir("disk/.Trash-1000/files");
  // Without the sticky bit the shared trash is not to be trusted.
  tmp.mkdir("plain/.Trash/1000/files");
  tmp.mkdir("plain/.Trash-1001/files");
  // Pseudo file systems are never looked at.
  tmp.mkdir("pseudo/.Trash-1000/files");

  auto folders = mountTrashFolders({{tmp / "disk", "ext4", "8:1", "/dev/sda1"},
                                    {tmp / "plain", "vfat", "8:2", "/dev/sda2"},
                                    {tmp / "pseudo", "proc", "0:5", "proc"}},
                                   1000);
  EXPECT_EQ(folders, (std::vector<std::string>{tmp / "disk/.Trash/1000/files",
                                               tmp / "disk/.Trash-1000/files"}));
}

TEST(LocationsTest, EnvironmentDecidesHomeAndXdgFolders) {
  testsupport::ScopedEnvironment environment({{"HOME", "/home/tester/"},
                                              {"XDG_DATA_HOME", "relative/ignored"},
                                              {"XDG_DATA_DIRS", "/opt/share:relative:/usr/share"},
                                              {"XDG_CACHE_HOME", "/var/tmp/cache"}});
  auto l = Locations::fromEnvironment();
  EXPECT_EQ(l.home, "/home/tester");
  EXPECT_EQ(l.library, "/home/tester/.local/share");
  EXPECT_EQ(l.cacheHome, "/var/tmp/cache");
  EXPECT_EQ(l.temporary, "/tmp");
  EXPECT_EQ(l.trashes.front(), "/home/tester/.local/share/Trash/files");
  ASSERT_GE(l.applications.size(), 3u);
  EXPECT_EQ(l.applications[0], "/home/tester/.local/share/applications");
  EXPECT_EQ(l.applications[1], "/opt/share/applications");
  EXPECT_EQ(l.applications[2], "/usr/share/applications");

  // Under a root, every location is the same one with the root in front, XDG variables included;
  // the machine's other trash folders are not the root's.
  auto rooted = Locations::fromEnvironment("/mnt/disk/");
  EXPECT_EQ(rooted.home, "/mnt/disk/home/tester");
  EXPECT_EQ(rooted.cacheHome, "/mnt/disk/var/tmp/cache");
  EXPECT_EQ(rooted.systemCaches, "/mnt/disk/var/cache");
  EXPECT_EQ(rooted.temporary, "/mnt/disk/tmp");
  EXPECT_EQ(rooted.flatpakAppData, "/mnt/disk/home/tester/.var/app");
  EXPECT_EQ(rooted.trashes,
            (std::vector<std::string>{"/mnt/disk/home/tester/.local/share/Trash/files"}));
  EXPECT_EQ(rooted.root, "/mnt/disk");
  for (const auto* list :
       {&rooted.applications, &rooted.flatpakInstallations, &rooted.commandFolders}) {
    for (const auto& path : *list) EXPECT_EQ(path.rfind("/mnt/disk/", 0), 0u) << path;
  }
  EXPECT_EQ(rooted.applications[1], "/mnt/disk/opt/share/applications");
  EXPECT_EQ(Locations::fromEnvironment("").home, "/home/tester");
}

}  // namespace
}  // namespace platform
