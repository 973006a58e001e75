#include "platform/HostStatistics.h"

#include <malloc.h>
#include <sys/random.h>

#include <charconv>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include "platform/Files.h"
#include "platform/SystemRoots.h"
#include "platform/Text.h"

namespace platform {

namespace {

std::vector<std::string_view> splitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    std::size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) fields.push_back(line.substr(start, i - start));
  }
  return fields;
}

std::optional<std::uint64_t> number(std::string_view text, int base = 10) {
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::vector<ProcessorTicks>> parseProcStat(std::string_view text) {
  std::vector<ProcessorTicks> processors;
  forEachLine(text, [&](std::string_view line) {
    // "cpuN user nice system idle iowait irq softirq steal ..."; the "cpu " line is the sum.
    if (line.size() < 4 || line.substr(0, 3) != "cpu" || line[3] < '0' || line[3] > '9') return;
    auto fields = splitFields(line);
    std::uint64_t value[8] = {};
    for (std::size_t i = 0; i < 8 && i + 1 < fields.size(); ++i) {
      value[i] = number(fields[i + 1]).value_or(0);
    }
    if (fields.size() < 5) return;
    processors.push_back(
        ProcessorTicks{value[0], value[2] + value[5] + value[6] + value[7], value[3] + value[4]});
  });
  if (processors.empty()) return std::nullopt;
  return processors;
}

std::optional<std::vector<ProcessorTicks>> readProcessorTicks() {
  auto text = readSmallFile(systemRoots().proc + "/stat");
  if (!text) return std::nullopt;
  return parseProcStat(*text);
}

std::map<std::string, std::uint64_t> parseMeminfo(std::string_view text) {
  std::map<std::string, std::uint64_t> fields;
  forEachLine(text, [&](std::string_view line) {
    auto colon = line.find(':');
    if (colon == std::string_view::npos) return;
    auto values = splitFields(line.substr(colon + 1));
    if (values.empty()) return;
    auto value = number(values[0]);
    if (!value) return;
    std::uint64_t scale = values.size() > 1 && values[1] == "kB" ? 1024 : 1;
    fields[std::string(line.substr(0, colon))] = *value * scale;
  });
  return fields;
}

std::map<std::string, std::uint64_t> readMeminfo() {
  auto text = readSmallFile(systemRoots().proc + "/meminfo");
  return text ? parseMeminfo(*text) : std::map<std::string, std::uint64_t>{};
}

std::vector<InterfaceCounters> parseNetDev(std::string_view text) {
  std::vector<InterfaceCounters> interfaces;
  forEachLine(text, [&](std::string_view line) {
    // "  name: rx_bytes rx_packets ... (8 receive fields) tx_bytes ..."
    auto colon = line.find(':');
    if (colon == std::string_view::npos) return;
    auto names = splitFields(line.substr(0, colon));
    auto values = splitFields(line.substr(colon + 1));
    if (names.size() != 1 || values.size() < 9) return;
    auto in = number(values[0]);
    auto out = number(values[8]);
    if (!in || !out) return;
    interfaces.push_back({std::string(names[0]), *in, *out});
  });
  return interfaces;
}

std::optional<std::vector<InterfaceCounters>> readNonLoopbackCounters(std::string& buffer) {
  auto roots = systemRoots();
  auto text = readSmallFile(roots.proc + "/net/dev");
  if (!text) return std::nullopt;
  buffer.swap(*text);
  std::vector<InterfaceCounters> counted;
  for (auto& interface : parseNetDev(buffer)) {
    constexpr std::uint64_t kLoopback = 0x8;  // IFF_LOOPBACK
    auto flags = readSmallFile(roots.sys + "/class/net/" + interface.name + "/flags");
    if (flags) {
      std::string_view text = *flags;
      while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
      if (text.starts_with("0x")) text.remove_prefix(2);
      auto value = number(text, 16);
      if (value && (*value & kLoopback)) continue;
    }
    counted.push_back(std::move(interface));
  }
  return counted;
}

std::optional<std::uint64_t> cgroupMemoryHeadroom() {
  auto roots = systemRoots();
  auto membership = readSmallFile(roots.proc + "/self/cgroup");
  if (!membership) return std::nullopt;
  auto trimmed = [](std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
  };
  std::optional<std::uint64_t> headroom;
  forEachLine(*membership, [&](std::string_view line) {
    if (headroom) return;
    // "0::/path" is cgroup v2; "N:memory:/path" (or a list holding memory) is v1.
    auto first = line.find(':');
    auto second = line.find(':', first + 1);
    if (first == std::string_view::npos || second == std::string_view::npos) return;
    std::string_view controllers = line.substr(first + 1, second - first - 1);
    std::string path(line.substr(second + 1));
    std::string limitFile, usageFile;
    if (controllers.empty()) {
      limitFile = roots.sys + "/fs/cgroup" + path + "/memory.max";
      usageFile = roots.sys + "/fs/cgroup" + path + "/memory.current";
    } else if (("," + std::string(controllers) + ",").find(",memory,") != std::string::npos) {
      limitFile = roots.sys + "/fs/cgroup/memory" + path + "/memory.limit_in_bytes";
      usageFile = roots.sys + "/fs/cgroup/memory" + path + "/memory.usage_in_bytes";
    } else {
      return;
    }
    auto limitText = readSmallFile(limitFile);
    if (!limitText) return;
    auto limit = number(trimmed(*limitText));
    // "max", or v1's page-rounded largest value, mean no limit.
    if (!limit || *limit >= (std::uint64_t{1} << 62)) return;
    auto usageText = readSmallFile(usageFile);
    std::uint64_t usage = usageText ? number(trimmed(*usageText)).value_or(0) : 0;
    headroom = usage >= *limit ? 0 : *limit - usage;
  });
  return headroom;
}

void fillIncompressible(void* data, std::size_t size) {
  // xoshiro256**, seeded from the kernel once per thread; the state is kept in locals while the
  // buffer is filled.
  thread_local std::uint64_t seed[4] = {0, 0, 0, 0};
  thread_local bool seeded = false;
  if (!seeded) {
    if (::getrandom(seed, sizeof(seed), 0) != sizeof(seed)) {
      seed[0] = reinterpret_cast<std::uintptr_t>(&seed) | 1;
      seed[1] = 0x9E3779B97F4A7C15ULL;
    }
    seeded = true;
  }
  std::uint64_t s0 = seed[0], s1 = seed[1], s2 = seed[2], s3 = seed[3];
  auto rotl = [](std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); };
  auto next = [&] {
    std::uint64_t result = rotl(s1 * 5, 7) * 9;
    std::uint64_t t = s1 << 17;
    s2 ^= s0;
    s3 ^= s1;
    s1 ^= s2;
    s0 ^= s3;
    s2 ^= t;
    s3 = rotl(s3, 45);
    return result;
  };
  auto* out = static_cast<unsigned char*>(data);
  for (; size >= 8; size -= 8, out += 8) {
    std::uint64_t word = next();
    std::memcpy(out, &word, 8);
  }
  if (size > 0) {
    std::uint64_t word = next();
    std::memcpy(out, &word, size);
  }
  seed[0] = s0;
  seed[1] = s1;
  seed[2] = s2;
  seed[3] = s3;
}

void releaseFreedMemory() { ::malloc_trim(0); }

}  // namespace platform
