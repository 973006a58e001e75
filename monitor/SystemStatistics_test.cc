#include "monitor/SystemStatistics.h"

#include <gtest/gtest.h>

#include <set>

#include "platform/HostStatistics.h"
#include "platform/SystemRoots.h"
#include "testsupport/TestSupport.h"

namespace monitor {
namespace {

class SystemStatisticsTest : public ::testing::Test {
 protected:
  void SetUp() override { platform::setSystemRoots({tmp_ / "proc", tmp_ / "sys"}); }
  void TearDown() override { platform::setSystemRoots({}); }

  void netDev(const std::string& rows) {
    tmp_.write("proc/net/dev",
               "Inter-|   Receive                                                |  Transmit\n"
               " face |bytes    packets errs drop fifo frame compressed multicast|bytes    "
               "packets errs drop fifo colls carrier compressed\n" +
                   rows);
  }

  testsupport::TempDir tmp_;
};

TEST_F(SystemStatisticsTest, OneEntryPerProcessorWithFoldedCounters) {
  std::string stat = "cpu  800 80 400 8000 160 8 8 8 0 0\n";
  for (int i = 0; i < 8; ++i) {
    // user nice system idle iowait irq softirq steal guest guest_nice
    stat +=
        "cpu" + std::to_string(i) + " " + std::to_string(100 + i) + " 10 50 1000 20 1 1 1 0 0\n";
  }
  stat += "intr 12345\nctxt 999\n";
  tmp_.write("proc/stat", stat);

  auto loads = GetCPULoadInfo();
  ASSERT_TRUE(loads);
  ASSERT_EQ(loads->size(), 8u);
  EXPECT_EQ((*loads)[3]->user, 103u);
  EXPECT_EQ((*loads)[3]->system, 53u);  // system + irq + softirq + steal
  EXPECT_EQ((*loads)[3]->idle, 1020u);  // idle + iowait

  // Counters without processors, or malformed, give nothing.
  tmp_.write("proc/stat", "intr 1\n");
  EXPECT_FALSE(GetCPULoadInfo());
  EXPECT_FALSE(platform::parseProcStat("cpuX 1 2 3 4\ncpu0 1 2\n"));
}

TEST_F(SystemStatisticsTest, UnreadableCountersGiveNothing) {
  EXPECT_FALSE(GetCPULoadInfo());
  EXPECT_FALSE(GetNetworkStat());
}

TEST_F(SystemStatisticsTest, MemoryTotalIsCachedAndFreeIsFresh) {
  tmp_.write("proc/meminfo", "MemTotal:       16000000 kB\nMemFree:         4000000 kB\n");
  std::uint64_t total = GetTotalMemory();
  ASSERT_GT(total, 0u);
  tmp_.write("proc/meminfo", "MemTotal:       99 kB\nMemFree:         2000000 kB\n");
  EXPECT_EQ(GetTotalMemory(), total);

  auto info = GetMemoryInfo();
  ASSERT_TRUE(info);
  EXPECT_EQ((*info)->totalSize, static_cast<std::int64_t>(total));
  EXPECT_EQ((*info)->freeSize, 2000000LL * 1024);
}

TEST_F(SystemStatisticsTest, NetworkSkipsLoopbackByFlagAndTotalsGrow) {
  tmp_.write("sys/class/net/lo/flags", "0x9\n");
  tmp_.write("sys/class/net/eth0/flags", "0x1003\n");
  tmp_.write("sys/class/net/wlan0/flags", "0x1003\n");
  // "veth-lo" is named like loopback but isn't flagged so: it counts.
  tmp_.write("sys/class/net/veth-lo/flags", "0x1003\n");
  using Totals = std::pair<std::uint64_t, std::uint64_t>;
  // Bytes in and out of loopback and eth0; wlan0 and veth-lo stay as they are.
  auto counters = [&](int loopback, int in, int out) {
    const std::string lo = std::to_string(loopback);
    netDev("    lo: " + lo + " 10 0 0 0 0 0 0 " + lo + " 10 0 0 0 0 0 0\n" +
           "  eth0: " + std::to_string(in) + " 5 0 0 0 0 0 0 " + std::to_string(out) +
           " 3 0 0 0 0 0 0\n"
           " wlan0: 30 1 0 0 0 0 0 0 40 1 0 0 0 0 0 0\n"
           "veth-lo: 1 1 0 0 0 0 0 0 2 1 0 0 0 0 0 0\n");
    auto stat = GetNetworkStat();
    EXPECT_TRUE(stat);
    return stat ? Totals{(*stat)->bytesIn, (*stat)->bytesOut} : Totals{};
  };
  EXPECT_EQ(counters(5000, 1000, 200), (Totals{1031, 242}));
  // Only loopback moved: the totals stay. Then eth0 grows.
  EXPECT_EQ(counters(9000, 1000, 200), (Totals{1031, 242}));
  EXPECT_EQ(counters(9000, 4000, 900), (Totals{4031, 942}));
}

TEST(ClaimAndReleaseTest, EveryBlockIsFreedAlsoWhenAllocationFailsHalfWay) {
  for (std::size_t failAt : {std::size_t{0}, std::size_t{1}, std::size_t{57}, std::size_t{1000}}) {
    std::set<void*> live;
    std::size_t allocations = 0;
    detail::BlockAllocator allocator{[&](std::size_t n) -> void* {
                                       if (allocations++ == failAt) return nullptr;
                                       void* p = std::malloc(n);
                                       live.insert(p);
                                       return p;
                                     },
                                     [&](void* p) {
                                       EXPECT_EQ(live.erase(p), 1u)
                                           << "freed twice or never allocated";
                                       std::free(p);
                                     }};
    std::size_t blocks = detail::claimAndRelease(100 * detail::kBlockSize, allocator);
    EXPECT_EQ(blocks, std::min<std::size_t>(failAt, 100));
    EXPECT_TRUE(live.empty()) << live.size() << " blocks left after failing at " << failAt;
  }
}

TEST(ClaimAndReleaseTest, ClaimsStayBelowAvailableMemoryAndTheGroupLimit) {
  constexpr std::uint64_t GiB = std::uint64_t{1} << 30;
  constexpr std::uint64_t MiB = std::uint64_t{1} << 20;
  EXPECT_EQ(detail::claimableMemory(8 * GiB, std::nullopt), 7 * GiB);
  EXPECT_EQ(detail::claimableMemory(8 * GiB, 2 * GiB), 2 * GiB - 256 * MiB);
  EXPECT_EQ(detail::claimableMemory(512 * MiB, std::nullopt), 384 * MiB);
  EXPECT_EQ(detail::claimableMemory(100 * MiB, std::nullopt), 0u);
  EXPECT_EQ(detail::claimableMemory(8 * GiB, 0), 0u);
}

TEST_F(SystemStatisticsTest, ControlGroupHeadroomFromEitherVersion) {
  EXPECT_FALSE(platform::cgroupMemoryHeadroom());
  tmp_.write("proc/self/cgroup", "0::/user.slice/app\n");
  tmp_.write("sys/fs/cgroup/user.slice/app/memory.max", "max\n");
  EXPECT_FALSE(platform::cgroupMemoryHeadroom());
  tmp_.write("sys/fs/cgroup/user.slice/app/memory.max", "1000000\n");
  tmp_.write("sys/fs/cgroup/user.slice/app/memory.current", "250000\n");
  EXPECT_EQ(platform::cgroupMemoryHeadroom(), 750000u);

  tmp_.write("proc/self/cgroup", "5:cpu,cpuacct:/\n4:memory:/job\n0::/\n");
  tmp_.write("sys/fs/cgroup/memory/job/memory.limit_in_bytes", "9223372036854771712\n");
  EXPECT_FALSE(platform::cgroupMemoryHeadroom());
  tmp_.write("sys/fs/cgroup/memory/job/memory.limit_in_bytes", "4096\n");
  tmp_.write("sys/fs/cgroup/memory/job/memory.usage_in_bytes", "8192\n");
  EXPECT_EQ(platform::cgroupMemoryHeadroom(), 0u);
}

}  // namespace
}  // namespace monitor
