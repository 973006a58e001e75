#include <fmt/format.h>

#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <thread>

#include "cli/Commands.h"
#include "host/Host.h"
#include "host/Monitor.h"
#include "monitor/DiskInfo.h"
#include "monitor/SystemStatistics.h"
#include "monitor/Temperature.h"
#include "platform/ByteCountFormatter.h"

namespace cli {

namespace {

using monitor::Fan;

std::string bytes(std::uint64_t n) {
  return platform::formatByteCount(static_cast<std::int64_t>(n));
}

std::string sensorLines(const Snapshot& s) {
  std::string out;
  if (s.cpuTemperature < 0 && s.fans.empty()) return "Sensors     no sensors\n";
  out += s.cpuTemperature < 0 ? "CPU         no temperature sensor\n"
                              : fmt::format("CPU         {:.1f} °C\n", s.cpuTemperature);
  if (s.fans.empty()) out += "Fans        none\n";
  for (std::size_t i = 0; i < s.fans.size(); ++i) {
    const Fan& f = s.fans[i];
    auto rpm = [](float v) { return v < 0 ? std::string("?") : fmt::format("{:.0f}", v); };
    out += fmt::format("Fan {:<7} {} rpm (min {}, max {})\n", i + 1, rpm(f.actualSpeed),
                       rpm(f.minimumSpeed), rpm(f.maximumSpeed));
  }
  return out;
}

std::string commonLines(const Snapshot& s) {
  std::string out;
  if (s.memory) {
    out += fmt::format("Memory      {} total, {} free\n", bytes(s.memory->totalSize),
                       bytes(s.memory->freeSize));
  }
  if (s.disk) {
    out += fmt::format("Disk        {} total, {} free, {}\n", bytes(s.disk->totalSize),
                       bytes(s.disk->freeSize), s.ssd ? "solid state" : "not solid state");
  }
  return out + sensorLines(s);
}

std::string report(const Snapshot& s) {
  std::string out =
      fmt::format("Processors  {} (ticks since start: user, system, idle)\n", s.cpu.size());
  for (std::size_t i = 0; i < s.cpu.size(); ++i) {
    out += fmt::format("  cpu{:<4}   {:>12} {:>12} {:>12}\n", i, s.cpu[i].user, s.cpu[i].system,
                       s.cpu[i].idle);
  }
  out += commonLines(s);
  if (s.network) {
    out += fmt::format("Network     {} in, {} out since start\n", bytes(s.network->bytesIn),
                       bytes(s.network->bytesOut));
  }
  return out;
}

// The view of `--watch`: processor use and network rates between two snapshots.
std::string rateReport(const Snapshot& before, const Snapshot& now) {
  std::string out = "Processors  busy\n";
  auto busy = busyPercent(before, now);
  for (std::size_t i = 0; i < busy.size(); ++i) {
    out += fmt::format("  cpu{:<4}   {:5.1f} %\n", i, busy[i]);
  }
  out += commonLines(now);
  if (auto rates = networkRates(before, now)) {
    auto rate = [](double perSecond) {
      return bytes(static_cast<std::uint64_t>(std::llround(perSecond)));
    };
    out += fmt::format("Network     {}/s in, {}/s out\n", rate(rates->in), rate(rates->out));
  }
  return out;
}

void freeMemory(bool json) {
  StatusLine status;
  status.show("Freeing memory...");
  nlohmann::json out = host::freeMemory();
  status.clear();
  if (json) {
    std::puts(out.dump().c_str());
  } else {
    std::printf("Free memory %s before, %s after\n",
                bytes(out["free_before"].get<std::uint64_t>()).c_str(),
                bytes(out["free_after"].get<std::uint64_t>()).c_str());
  }
}

}  // namespace

// A finite number of seconds written in decimal ("2", "0.5"); nothing for anything else, "nan"
// and "inf" included.
static std::optional<double> parseSeconds(const std::string& text) {
  if (text.empty() || text.size() > 32) return std::nullopt;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c)) && c != '.') return std::nullopt;
  }
  char* end = nullptr;
  double value = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

void addMonitorCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "monitor", "How the machine is doing: processors, memory, network, disk, temperature, fans");
  auto json = std::make_shared<bool>(false);
  auto watchText = std::make_shared<std::string>();
  auto watch = std::make_shared<double>(0);
  auto count = std::make_shared<int>(0);
  auto freeUp = std::make_shared<bool>(false);
  command->add_flag("--json", *json, "Print one JSON object per snapshot");
  auto* watchOption = command->add_option(
      "--watch", *watchText, "Refresh every SECONDS (0.1 to 86400), with usage and rates");
  command->add_option("--count", *count, "With --watch: show N snapshots in all, then stop")
      ->check(CLI::Range(1, 1000000000));
  command->add_flag("--free-memory", *freeUp,
                    "Make the system reclaim memory and report free memory before and after");
  command->callback([=] {
    if (watchOption->count() > 0) {
      auto seconds = parseSeconds(*watchText);
      if (!seconds) {
        throw CommandError{
            kUsage, fmt::format("--watch: not a number of seconds: {}", displayText(*watchText))};
      }
      if (*seconds < 0.1 || *seconds > 86400) {
        throw CommandError{kUsage, "--watch: SECONDS must be from 0.1 to 86400"};
      }
      *watch = *seconds;
    }
    if (*freeUp) {
      if (*watch > 0) throw CommandError{kUsage, "--free-memory can't be combined with --watch"};
      freeMemory(*json);
      return;
    }
    if (*count > 0 && *watch <= 0) throw CommandError{kUsage, "--count needs --watch"};
    Snapshot previous = takeSnapshot();
    if (previous.cpu.empty() && !previous.memory) {
      throw CommandError{kFailure, "cannot read the system's counters"};
    }
    auto print = [&](const std::string& text) {
      std::fputs(text.c_str(), stdout);
      std::fflush(stdout);
    };
    print(*json ? snapshotJson(previous).dump() + "\n" : report(previous));
    if (*watch <= 0) return;

    InterruptGuard interrupt;
    bool clearScreen = !*json && ::isatty(STDOUT_FILENO);
    auto period = std::chrono::duration<double>(*watch);
    // The first snapshot is already shown; --count counts it too.
    for (int shown = 1; *count == 0 || shown < *count; ++shown) {
      auto wake = std::chrono::steady_clock::now() + period;
      while (std::chrono::steady_clock::now() < wake) {
        if (interrupt.interrupted()) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      Snapshot now = takeSnapshot();
      if (*json) {
        print(snapshotJson(now).dump() + "\n");
      } else {
        print((clearScreen ? "\033[H\033[2J" : "\n") + rateReport(previous, now));
      }
      previous = std::move(now);
    }
  });
}

}  // namespace cli
