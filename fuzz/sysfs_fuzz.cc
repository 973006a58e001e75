// The sysfs files of sensors, fans and disks, as the controller stand-in and the disk reader see
// them: the parts of an input become the files of one hardware monitor and one block device.
#include "fuzz/FuzzSupport.h"
#include "monitor/DiskInfo.h"
#include "monitor/Temperature.h"
#include "platform/SystemRoots.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  auto parts = fuzz::parts(input, 8);
  const char* files[] = {"class/hwmon/hwmon0/name",        "class/hwmon/hwmon0/temp1_label",
                         "class/hwmon/hwmon0/temp1_input", "class/hwmon/hwmon0/fan1_input",
                         "class/hwmon/hwmon0/fan1_min",    "class/hwmon/hwmon0/fan1_max",
                         "block/sda/queue/rotational",     "block/sda/dev"};
  for (std::size_t i = 0; i < parts.size(); ++i) {
    fuzz::put(std::string("sys/") + files[i], parts[i]);
  }
  platform::setSystemRoots({fuzz::scratch() + "/proc", fuzz::scratch() + "/sys"});
  float temperature = monitor::GetCPUTemperature();
  fuzz::require(temperature == temperature);  // never NaN
  if (auto fans = monitor::GetFans()) {
    for (const auto& fan : *fans) fuzz::require(fan != nullptr);
  }
  monitor::isSolidState("sda");
  return 0;
}
