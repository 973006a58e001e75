#pragma once

// How the machine is doing, as both hosts show it: one snapshot of the counters and sensors, its
// JSON, the rates between two snapshots, and the start-up disk.

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "monitor/DiskInfo.h"
#include "monitor/SystemStatistics.h"
#include "monitor/Temperature.h"

namespace host {

struct Snapshot {
  std::chrono::steady_clock::time_point taken;
  std::vector<monitor::CPULoadInfo> cpu;
  std::optional<monitor::MemoryInfo> memory;
  std::optional<monitor::NetworkStat> network;
  std::optional<monitor::DiskInfo> disk;
  bool ssd = false;
  float cpuTemperature = -1.0f;
  std::vector<monitor::Fan> fans;
};

Snapshot takeSnapshot();

// {"cpu": [{"user", "system", "idle"}], "memory": {"total", "free"}, "network": {"bytes_in",
// "bytes_out"}, "disk": {"total", "free"}, "cpu_temperature", "fans": [{"actual", "minimum",
// "maximum"}]}; a part that couldn't be read is null.
nlohmann::json snapshotJson(const Snapshot& s);

// The share of each processor's time spent busy between two snapshots, 0 to 100.
std::vector<double> busyPercent(const Snapshot& before, const Snapshot& now);

// Bytes a second received and sent between two snapshots; nothing when either lacks counters.
struct NetworkRates {
  double in = 0, out = 0;
};
std::optional<NetworkRates> networkRates(const Snapshot& before, const Snapshot& now);

// Makes the system reclaim memory: {"free_before", "free_after"}. A `CommandError` when the
// counters can't be read.
nlohmann::json freeMemory();

// {"total", "free", "ssd"} of the start-up disk; nothing when it can't be read.
std::optional<nlohmann::json> startupDiskJson();

}  // namespace host
