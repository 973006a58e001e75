#include "host/Monitor.h"

#include "host/Host.h"

namespace host {

Snapshot takeSnapshot() {
  Snapshot s;
  s.taken = std::chrono::steady_clock::now();
  if (auto loads = monitor::GetCPULoadInfo()) {
    for (const auto& load : *loads) s.cpu.push_back(*load);
  }
  if (auto memory = monitor::GetMemoryInfo()) s.memory = **memory;
  if (auto network = monitor::GetNetworkStat()) s.network = **network;
  if (auto disk = monitor::DiskInfoReader::shared().readInfo()) s.disk = **disk;
  s.ssd = monitor::DiskInfoReader::shared().isSSD();
  {
    // The controller client prints a line on standard output when there is no controller.
    SilencedStdout quiet;
    s.cpuTemperature = monitor::GetCPUTemperature();
    if (auto fans = monitor::GetFans()) {
      for (const auto& fan : *fans) s.fans.push_back(*fan);
    }
  }
  if (s.cpuTemperature < 0) s.cpuTemperature = monitor::getSilliconCPUTemperature();
  return s;
}

nlohmann::json snapshotJson(const Snapshot& s) {
  nlohmann::json cpu = nlohmann::json::array();
  for (const auto& c : s.cpu) {
    cpu.push_back({{"user", c.user}, {"system", c.system}, {"idle", c.idle}});
  }
  nlohmann::json fans = nlohmann::json::array();
  for (const auto& f : s.fans) {
    fans.push_back(
        {{"actual", f.actualSpeed}, {"minimum", f.minimumSpeed}, {"maximum", f.maximumSpeed}});
  }
  nlohmann::json out;
  out["cpu"] = cpu;
  out["memory"] = s.memory
                      ? nlohmann::json{{"total", s.memory->totalSize}, {"free", s.memory->freeSize}}
                      : nlohmann::json(nullptr);
  out["network"] = s.network ? nlohmann::json{{"bytes_in", s.network->bytesIn},
                                              {"bytes_out", s.network->bytesOut}}
                             : nlohmann::json(nullptr);
  out["disk"] = s.disk ? nlohmann::json{{"total", s.disk->totalSize}, {"free", s.disk->freeSize}}
                       : nlohmann::json(nullptr);
  out["cpu_temperature"] = s.cpuTemperature;
  out["fans"] = fans;
  return out;
}

std::vector<double> busyPercent(const Snapshot& before, const Snapshot& now) {
  std::vector<double> out;
  for (std::size_t i = 0; i < now.cpu.size() && i < before.cpu.size(); ++i) {
    // Counters are 32 bits and wrap; unsigned subtraction gives the right step across a wrap.
    std::uint32_t busy =
        (now.cpu[i].user - before.cpu[i].user) + (now.cpu[i].system - before.cpu[i].system);
    std::uint32_t idle = now.cpu[i].idle - before.cpu[i].idle;
    out.push_back(busy + idle == 0 ? 0.0 : 100.0 * busy / (busy + idle));
  }
  return out;
}

std::optional<NetworkRates> networkRates(const Snapshot& before, const Snapshot& now) {
  double seconds = std::chrono::duration<double>(now.taken - before.taken).count();
  if (!now.network || !before.network || seconds <= 0) return std::nullopt;
  auto rate = [&](std::uint64_t a, std::uint64_t b) {
    return static_cast<double>(b >= a ? b - a : 0) / seconds;
  };
  return NetworkRates{rate(before.network->bytesIn, now.network->bytesIn),
                      rate(before.network->bytesOut, now.network->bytesOut)};
}

nlohmann::json freeMemory() {
  auto before = monitor::GetMemoryInfo();
  if (!before) throw CommandError{kFailure, "cannot read memory counters"};
  monitor::FreeUpMemory();
  auto after = monitor::GetMemoryInfo();
  if (!after) throw CommandError{kFailure, "cannot read memory counters"};
  return {{"free_before", (*before)->freeSize}, {"free_after", (*after)->freeSize}};
}

std::optional<nlohmann::json> startupDiskJson() {
  auto info = monitor::DiskInfoReader::shared().readInfo();
  if (!info) return std::nullopt;
  return nlohmann::json{{"total", (*info)->totalSize},
                        {"free", (*info)->freeSize},
                        {"ssd", monitor::DiskInfoReader::shared().isSSD()}};
}

}  // namespace host
