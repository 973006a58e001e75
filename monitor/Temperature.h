#pragma once

// CPU temperature and fans. `GetCPUTemperature` and `GetFans` open and close the one process-wide
// controller connection of the SMC client: they must not run on two threads at once.
// `SilliconTemperatureDictionary` keeps no state and may run anywhere.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace monitor {

class Fan {
 public:
  float actualSpeed = -1.0f;
  float minimumSpeed = -1.0f;
  float maximumSpeed = -1.0f;
};

// At most this many fans have keys.
inline constexpr int kMaxFans = 20;

// Degrees Celsius of the CPU package sensor ("TC0P"), or -1.0 without a reading.
float GetCPUTemperature();

// One `Fan` per fan the controller counts (at most `kMaxFans`); nothing when the count can't be
// read. A speed that can't be read is -1.0.
std::optional<std::vector<std::shared_ptr<Fan>>> GetFans();

// Every temperature sensor by name, in degrees Celsius; a later sensor of the same name wins.
std::map<std::string, double> SilliconTemperatureDictionary();

// The hottest of the CPU cluster sensors ("pACC MTR", then "eACC MTR"), or -1.0 when there is
// none.
float getSilliconCPUTemperature();

}  // namespace monitor
