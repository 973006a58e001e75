#pragma once

// Processor, memory and network counters for a host that polls them. Counters are raw and
// cumulative: the host turns them into rates and percentages.
//
// `GetNetworkStat` reuses one process-wide buffer without a lock: it must not run on two threads
// at once. The others may run anywhere.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace monitor {

class CPULoadInfo {
 public:
  std::uint32_t user = 0;
  std::uint32_t system = 0;
  std::uint32_t idle = 0;
};

class MemoryInfo {
 public:
  std::int64_t totalSize = 0;
  std::int64_t freeSize = 0;
};

class NetworkStat {
 public:
  std::uint64_t bytesIn = 0;
  std::uint64_t bytesOut = 0;
};

// One entry per processor, in the system's order; nothing when the counters can't be read.
std::optional<std::vector<std::shared_ptr<CPULoadInfo>>> GetCPULoadInfo();

// Physical memory in bytes, read once and cached; 0 when it can't be read.
std::uint64_t GetTotalMemory();
// The page size in bytes, read once and cached; 0 when it can't be read.
std::uint64_t GetMemoryPageSize();

std::optional<std::shared_ptr<MemoryInfo>> GetMemoryInfo();

// Makes the system reclaim memory by claiming, writing and releasing what is free. It never
// claims more than the available memory and the control group's limit leave, less a margin, so
// it can't provoke the out-of-memory killer. Blocks until done.
void FreeUpMemory();

// Bytes in and out of every interface but loopback since the system started.
std::optional<std::shared_ptr<NetworkStat>> GetNetworkStat();

namespace detail {

// How `FreeUpMemory` gets and gives back its blocks; tests inject failures.
struct BlockAllocator {
  std::function<void*(std::size_t)> allocate;
  std::function<void(void*)> release;
};

inline constexpr std::size_t kBlockSize = 520;

// Claims `amount` bytes as a chain of 520-byte blocks whose data is written through, then frees
// every block; on an allocation failure frees the blocks claimed so far and stops. Gives the
// number of blocks claimed.
std::size_t claimAndRelease(std::uint64_t amount, const BlockAllocator& allocator);

// How much `FreeUpMemory` may claim: the available memory, capped by the control group's
// headroom, less a margin of an eighth and at least 128 MiB.
std::uint64_t claimableMemory(std::uint64_t available, std::optional<std::uint64_t> headroom);

}  // namespace detail

}  // namespace monitor
