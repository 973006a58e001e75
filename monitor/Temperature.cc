#include "monitor/Temperature.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "monitor/smc.h"
#include "platform/Smc.h"

namespace monitor {

namespace {

constexpr char kFanIndex[] = "0123456789ABCDEFGHIJ";

}  // namespace

float GetCPUTemperature() {
  SMCOpen();
  SMCVal_t value;
  kern_return_t result = SMCReadKey("TC0P", &value);
  SMCClose();
  if (result == 0 && std::strcmp(value.dataType, "sp78") == 0 && value.dataSize == 2) {
    return SMCGetSP78(value);
  }
  return -1.0f;
}

std::optional<std::vector<std::shared_ptr<Fan>>> GetFans() {
  SMCOpen();
  SMCVal_t value;
  if (SMCReadKey("FNum", &value) != 0) {
    SMCClose();
    return std::nullopt;
  }
  int count = static_cast<int>(_strtoul(value.bytes, static_cast<int>(value.dataSize), 10));
  std::vector<std::shared_ptr<Fan>> fans;
  // The index table has 20 places; a larger count has no keys to read.
  count = std::min(count, kMaxFans);
  fans.reserve(static_cast<std::size_t>(std::max(count, 0)));
  for (int i = 0; i < count; ++i) {
    auto fan = std::make_shared<Fan>();
    fans.push_back(fan);
    char key[5];
    const char c = kFanIndex[i];
    // A failed read leaves the value empty, which converts to -1.0.
    std::snprintf(key, sizeof(key), "F%cAc", c);
    SMCReadKey(key, &value);
    fan->actualSpeed = SMCFloatFromVal(value);
    std::snprintf(key, sizeof(key), "F%cMn", c);
    SMCReadKey(key, &value);
    fan->minimumSpeed = SMCFloatFromVal(value);
    std::snprintf(key, sizeof(key), "F%cMx", c);
    SMCReadKey(key, &value);
    fan->maximumSpeed = SMCFloatFromVal(value);
  }
  SMCClose();
  return fans;
}

std::map<std::string, double> SilliconTemperatureDictionary() {
  std::map<std::string, double> readings;
  for (auto& sensor : platform::readTemperatureSensors()) {
    readings[sensor.name] = sensor.celsius;
  }
  return readings;
}

float getSilliconCPUTemperature() {
  auto readings = SilliconTemperatureDictionary();
  std::vector<float> values;
  for (const char* fragment : {"pACC MTR", "eACC MTR"}) {
    for (const auto& [name, celsius] : readings) {
      if (name.find(fragment) != std::string::npos) values.push_back(static_cast<float>(celsius));
    }
  }
  if (values.empty()) return -1.0f;
  return *std::max_element(values.begin(), values.end());
}

}  // namespace monitor
