#include "monitor/SystemStatistics.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>

#include "platform/HostStatistics.h"

namespace monitor {

namespace {

std::atomic<std::uint64_t> g_totalMemory{0};
std::atomic<std::uint64_t> g_pageSize{0};
std::string g_interfaceBuffer;

// One link of the chain: 512 bytes of data and the block before it.
struct Block {
  unsigned char data[detail::kBlockSize - sizeof(void*)];
  Block* previous;
};
static_assert(sizeof(Block) == detail::kBlockSize);

}  // namespace

std::optional<std::vector<std::shared_ptr<CPULoadInfo>>> GetCPULoadInfo() {
  auto ticks = platform::readProcessorTicks();
  if (!ticks) return std::nullopt;
  std::vector<std::shared_ptr<CPULoadInfo>> loads;
  loads.reserve(ticks->size());
  for (const auto& t : *ticks) {
    auto info = std::make_shared<CPULoadInfo>();
    // The counters are 32 bits wide and wrap, as the system's own do.
    info->user = static_cast<std::uint32_t>(t.user);
    info->system = static_cast<std::uint32_t>(t.system);
    info->idle = static_cast<std::uint32_t>(t.idle);
    loads.push_back(std::move(info));
  }
  return loads;
}

std::uint64_t GetTotalMemory() {
  std::uint64_t cached = g_totalMemory.load();
  if (cached != 0) return cached;
  auto fields = platform::readMeminfo();
  auto total = fields.find("MemTotal");
  std::uint64_t value = total == fields.end() ? 0 : total->second;
  g_totalMemory.store(value);
  return value;
}

std::uint64_t GetMemoryPageSize() {
  std::uint64_t cached = g_pageSize.load();
  if (cached != 0) return cached;
  long size = ::sysconf(_SC_PAGESIZE);
  std::uint64_t value = size > 0 ? static_cast<std::uint64_t>(size) : 0;
  g_pageSize.store(value);
  return value;
}

std::optional<std::shared_ptr<MemoryInfo>> GetMemoryInfo() {
  std::uint64_t total = GetTotalMemory();
  std::uint64_t pageSize = GetMemoryPageSize();
  if (total == 0 || pageSize == 0) return std::nullopt;
  auto fields = platform::readMeminfo();
  auto free = fields.find("MemFree");
  if (free == fields.end()) return std::nullopt;
  auto info = std::make_shared<MemoryInfo>();
  info->totalSize = static_cast<std::int64_t>(total);
  info->freeSize = static_cast<std::int64_t>(free->second);
  return info;
}

void FreeUpMemory() {
  if (GetTotalMemory() == 0 || GetMemoryPageSize() == 0) return;
  auto fields = platform::readMeminfo();
  auto available = fields.find("MemAvailable");
  if (available == fields.end()) return;
  std::uint64_t amount =
      detail::claimableMemory(available->second, platform::cgroupMemoryHeadroom());
  if (amount == 0) return;
  detail::claimAndRelease(
      amount, {[](std::size_t n) { return std::malloc(n); }, [](void* p) { std::free(p); }});
  // Freed blocks would otherwise stay with the allocator, held by this process.
  platform::releaseFreedMemory();
}

std::optional<std::shared_ptr<NetworkStat>> GetNetworkStat() {
  auto interfaces = platform::readNonLoopbackCounters(g_interfaceBuffer);
  if (!interfaces) return std::nullopt;
  auto stat = std::make_shared<NetworkStat>();
  for (const auto& interface : *interfaces) {
    stat->bytesIn += interface.bytesIn;
    stat->bytesOut += interface.bytesOut;
  }
  return stat;
}

namespace detail {

std::size_t claimAndRelease(std::uint64_t amount, const BlockAllocator& allocator) {
  Block* last = nullptr;
  std::size_t blocks = 0;
  for (std::uint64_t claimed = 0; claimed < amount; claimed += kBlockSize) {
    auto* block = static_cast<Block*>(allocator.allocate(sizeof(Block)));
    if (block == nullptr) break;
    // Written through with bytes that can't be compressed, so every page really is taken.
    platform::fillIncompressible(block->data, sizeof(block->data));
    block->previous = last;
    last = block;
    ++blocks;
  }
  while (last != nullptr) {
    Block* previous = last->previous;
    allocator.release(last);
    last = previous;
  }
  return blocks;
}

std::uint64_t claimableMemory(std::uint64_t available, std::optional<std::uint64_t> headroom) {
  constexpr std::uint64_t kMinimumMargin = std::uint64_t{128} << 20;
  std::uint64_t limit = headroom ? std::min(available, *headroom) : available;
  std::uint64_t margin = std::max(limit / 8, kMinimumMargin);
  return limit > margin ? limit - margin : 0;
}

}  // namespace detail

}  // namespace monitor
