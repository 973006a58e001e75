#include "monitor/DiskInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Disks.h"
#include "platform/SystemRoots.h"
#include "testsupport/TestSupport.h"

namespace monitor {
namespace {

using testsupport::TempDir;

// Regular files only, links not followed, a hard-linked file each time it is met; an empty
// folder and a missing path are 0, an unreadable subfolder is noted and the rest counted, and a
// stop ends the walk.
TEST(GetDirectorySizeTest, CountsWhatItCanReadAndStopsWhenAsked) {
  TempDir tmp;
  tmp.write("a/one", std::string(1000, 'x'));
  tmp.write("a/b/two", std::string(234, 'y'));
  tmp.symlink("a/link", "one");
  ::link((tmp / "a/one").c_str(), (tmp / "a/b/hard").c_str());
  tmp.write("a/locked/hidden", std::string(500, 'x'));
  ::chmod((tmp / "a/locked").c_str(), 0);
  testsupport::withoutPermissionOverride([&] {
    int error = 0;
    EXPECT_EQ(GetDirectorySize((tmp / "a").c_str(), nullptr, &error), 2234);
    EXPECT_EQ(error, EACCES);
  });
  int error = 0;
  EXPECT_EQ(GetDirectorySize(tmp.mkdir("empty").c_str(), nullptr, &error), 0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(GetDirectorySize((tmp / "missing").c_str()), 0);
  std::atomic<bool> stop{true};
  EXPECT_EQ(GetDirectorySize((tmp / "a/b").c_str(), &stop), 0);
  stop = false;
  EXPECT_EQ(GetDirectorySize((tmp / "a/b").c_str(), &stop), 1234);
}

// A fixture sysfs with a rotating disk, a solid-state disk, and devices built on them.
class SolidStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    disk("sda", "1");
    partition("sda", "sda1");
    disk("nvme0n1", "0");
    partition("nvme0n1", "nvme0n1p1");
    partition("nvme0n1", "nvme0n1p2");
    stacked("dm-0", {"nvme0n1p2"});
    stacked("md0", {"sda1", "nvme0n1p1"});
    platform::setSystemRoots({tmp_ / "proc", tmp_ / "sys"});
  }
  void TearDown() override { platform::setSystemRoots({}); }

  void disk(const std::string& name, const std::string& rotational) {
    tmp_.write("sys/block/" + name + "/queue/rotational", rotational + "\n");
    tmp_.mkdir("sys/class/block/" + name);
  }
  void partition(const std::string& disk, const std::string& name) {
    tmp_.write("sys/block/" + disk + "/" + name + "/partition", "1\n");
    tmp_.write("sys/class/block/" + name + "/partition", "1\n");
  }
  void stacked(const std::string& name, std::vector<std::string> slaves) {
    tmp_.write("sys/block/" + name + "/queue/rotational", "1\n");  // virtual devices claim 1
    for (const auto& slave : slaves) tmp_.mkdir("sys/class/block/" + name + "/slaves/" + slave);
  }

  TempDir tmp_;
};

TEST_F(SolidStateTest, PartitionsDevicesAndMissingDevices) {
  EXPECT_FALSE(isSolidState("sda"));
  EXPECT_FALSE(isSolidState("sda1"));
  EXPECT_TRUE(isSolidState("nvme0n1"));
  EXPECT_TRUE(isSolidState("nvme0n1p1"));
  EXPECT_TRUE(isSolidState("dm-0"));  // through its slave partition
  EXPECT_FALSE(isSolidState("md0"));  // one of its members rotates
  EXPECT_FALSE(isSolidState("sdz"));
  EXPECT_FALSE(isSolidState(""));
  EXPECT_FALSE(isSolidState("../../etc"));
}

TEST_F(SolidStateTest, TheMountsDeviceIsFoundByNumberOrBySource) {
  ::symlink("../../devices/pci0000:00/nvme/nvme0n1/nvme0n1p1",
            tmp_.mkdir("sys/dev/block").append("/259:1").c_str());
  tmp_.write("proc/self/mountinfo",
             "20 1 259:1 / / rw - ext4 /dev/nvme0n1p1 rw\n"
             "30 20 0:45 / /home rw - btrfs /dev/nvme0n1p2 rw\n"
             "31 20 0:46 / /mnt/tmp rw - tmpfs tmpfs rw\n");
  EXPECT_EQ(platform::blockDeviceOfMount("/"), "nvme0n1p1");
  EXPECT_EQ(platform::blockDeviceOfMount("/home"), "nvme0n1p2");
  EXPECT_FALSE(platform::blockDeviceOfMount("/mnt/tmp"));
  EXPECT_FALSE(platform::blockDeviceOfMount("/nowhere"));
  EXPECT_TRUE(DiskInfoReader::shared().isSSD());
}

// Other programs write meanwhile: free space is compared with readings taken just before and
// just after, give or take what a busy disk fills in between.
TEST(DiskInfoTest, StartupDiskAgreesWithStatvfs) {
  constexpr std::int64_t kSlack = 64 << 20;
  auto before = platform::fileSystemSpace("/");
  auto info = GetDiskInfo();
  auto read = DiskInfoReader::shared().readInfo();
  auto after = platform::fileSystemSpace("/");
  ASSERT_TRUE(info && read && before && after);
  const std::int64_t least = std::min(before->available, after->available) - kSlack,
                     most = std::max(before->available, after->available) + kSlack;
  EXPECT_EQ((*info)->totalSize, before->total);
  EXPECT_TRUE((*info)->freeSize >= least && (*info)->freeSize <= most) << (*info)->freeSize;
  // The largest of the sources: never less than "/" alone.
  EXPECT_GE((*read)->totalSize, before->total);
  EXPECT_GE((*read)->freeSize, least);
  EXPECT_FALSE(platform::fileSystemSpace("/no/such/place"));
}

}  // namespace
}  // namespace monitor
