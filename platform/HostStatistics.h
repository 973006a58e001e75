#pragma once

// Counters of the running system: processor ticks, memory and network interfaces. Parsers are
// pure functions over the kernel's text; readers take their files from `systemRoots()`.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Ticks of one processor, folded into the three counters the monitor reports: system time
// includes interrupts and time stolen by the hypervisor, idle time includes waiting for I/O.
// Nice time is not counted anywhere, as the monitor doesn't report it.
struct ProcessorTicks {
  std::uint64_t user = 0;
  std::uint64_t system = 0;
  std::uint64_t idle = 0;
};

// One entry per "cpuN" line of a /proc/stat text, in order; nothing when there is none.
std::optional<std::vector<ProcessorTicks>> parseProcStat(std::string_view text);
std::optional<std::vector<ProcessorTicks>> readProcessorTicks();

// The fields of a /proc/meminfo text in bytes ("MemTotal", "MemFree", "MemAvailable", ...).
std::map<std::string, std::uint64_t> parseMeminfo(std::string_view text);
std::map<std::string, std::uint64_t> readMeminfo();

struct InterfaceCounters {
  std::string name;
  std::uint64_t bytesIn = 0;
  std::uint64_t bytesOut = 0;
};

// The interfaces of a /proc/net/dev text with their byte counters.
std::vector<InterfaceCounters> parseNetDev(std::string_view text);

// Every interface but those flagged as loopback (IFF_LOOPBACK in /sys/class/net/NAME/flags; an
// interface whose flags can't be read counts). `buffer` is reused between calls. Nothing when
// the counters can't be read.
std::optional<std::vector<InterfaceCounters>> readNonLoopbackCounters(std::string& buffer);

// Bytes this process's control group may still take before its memory limit, or nothing when
// no limit is set (cgroup v2 memory.max, else cgroup v1 memory.limit_in_bytes).
std::optional<std::uint64_t> cgroupMemoryHeadroom();

// Fills `size` bytes with bytes that no compressor or page-merging can shrink. Fast rather than
// secret: a generator seeded once from the kernel.
void fillIncompressible(void* data, std::size_t size);

// Gives memory that the allocator holds free back to the system.
void releaseFreedMemory();

}  // namespace platform
