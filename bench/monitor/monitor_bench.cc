// Cost of one call of each monitoring function, on this machine and on a fixture sysfs with a
// CPU package sensor and three fans (most machines these run on in CI have no sensors).

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "monitor/DiskInfo.h"
#include "monitor/SystemStatistics.h"
#include "monitor/Temperature.h"
#include "platform/SystemRoots.h"

namespace {

namespace fs = std::filesystem;

void write(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << content;
}

// A sysfs with coretemp and a fan controller, under the system's temporary folder.
class SensorFixture {
 public:
  SensorFixture() {
    root_ = fs::temp_directory_path() / ("ravelin-bench-" + std::to_string(::getpid()));
    auto hw = root_ / "sys/class/hwmon";
    write(hw / "hwmon0/name", "coretemp\n");
    write(hw / "hwmon0/temp1_input", "47500\n");
    write(hw / "hwmon0/temp1_label", "Package id 0\n");
    write(hw / "hwmon0/temp2_input", "45000\n");
    write(hw / "hwmon0/temp2_label", "Core 0\n");
    write(hw / "hwmon1/name", "nct6775\n");
    for (int i = 1; i <= 3; ++i) {
      write(hw / ("hwmon1/fan" + std::to_string(i) + "_input"), "1200\n");
      write(hw / ("hwmon1/fan" + std::to_string(i) + "_min"), "300\n");
      write(hw / ("hwmon1/fan" + std::to_string(i) + "_max"), "4800\n");
    }
    for (int i = 0; i < 1000; ++i) {
      write(root_ / "tree" / std::to_string(i % 20) / std::to_string(i), std::string(100, 'x'));
    }
  }
  ~SensorFixture() { fs::remove_all(root_); }
  const fs::path& root() const { return root_; }

 private:
  fs::path root_;
};

SensorFixture& fixture() {
  static SensorFixture f;
  return f;
}

struct FixtureRoots {
  FixtureRoots() { platform::setSystemRoots({"/proc", (fixture().root() / "sys").string()}); }
  ~FixtureRoots() { platform::setSystemRoots({}); }
};

void BM_GetCPULoadInfo(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetCPULoadInfo());
}
void BM_GetTotalMemory(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetTotalMemory());
}
void BM_GetMemoryPageSize(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetMemoryPageSize());
}
void BM_GetMemoryInfo(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetMemoryInfo());
}
void BM_GetNetworkStat(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetNetworkStat());
}
void BM_GetDiskInfo(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetDiskInfo());
}
void BM_DiskInfoReader_readInfo(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(monitor::DiskInfoReader::shared().readInfo());
}
void BM_DiskInfoReader_isSSD(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(monitor::DiskInfoReader::shared().isSSD());
}
void BM_GetDirectorySize_1000Files(benchmark::State& state) {
  std::string tree = (fixture().root() / "tree").string();
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetDirectorySize(tree.c_str()));
}
void BM_GetCPUTemperature_Fixture(benchmark::State& state) {
  FixtureRoots roots;
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetCPUTemperature());
}
void BM_GetFans_Fixture3Fans(benchmark::State& state) {
  FixtureRoots roots;
  for (auto _ : state) benchmark::DoNotOptimize(monitor::GetFans());
}
void BM_SilliconTemperatureDictionary_Fixture(benchmark::State& state) {
  FixtureRoots roots;
  for (auto _ : state) benchmark::DoNotOptimize(monitor::SilliconTemperatureDictionary());
}
void BM_getSilliconCPUTemperature_Fixture(benchmark::State& state) {
  FixtureRoots roots;
  for (auto _ : state) benchmark::DoNotOptimize(monitor::getSilliconCPUTemperature());
}

BENCHMARK(BM_GetCPULoadInfo);
BENCHMARK(BM_GetTotalMemory);
BENCHMARK(BM_GetMemoryPageSize);
BENCHMARK(BM_GetMemoryInfo);
BENCHMARK(BM_GetNetworkStat);
BENCHMARK(BM_GetDiskInfo);
BENCHMARK(BM_DiskInfoReader_readInfo);
BENCHMARK(BM_DiskInfoReader_isSSD);
BENCHMARK(BM_GetDirectorySize_1000Files);
BENCHMARK(BM_GetCPUTemperature_Fixture);
BENCHMARK(BM_GetFans_Fixture3Fans);
BENCHMARK(BM_SilliconTemperatureDictionary_Fixture);
BENCHMARK(BM_getSilliconCPUTemperature_Fixture);

}  // namespace

BENCHMARK_MAIN();
