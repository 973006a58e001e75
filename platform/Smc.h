#pragma once

// The record exchange of a system management controller: 80-byte parameter records sent under a
// selector, answered in a record of the same layout. On Linux a stand-in answers from the
// hardware monitors of sysfs.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace platform {

// Result codes of the exchange, as the kernel service gives them.
inline constexpr int kSmcSuccess = 0;
inline constexpr int kSmcError = static_cast<int>(0xE00002BC);
inline constexpr int kSmcBadArgument = static_cast<int>(0xE00002C2);
inline constexpr int kSmcNoDevice = static_cast<int>(0xE00002C0);
inline constexpr int kSmcUnsupported = static_cast<int>(0xE00002C7);
inline constexpr int kSmcNotOpen = static_cast<int>(0xE00002CD);
inline constexpr int kSmcNotFound = static_cast<int>(0xE00002F0);

class SmcService {
 public:
  virtual ~SmcService() = default;
  // Sends `input` under `selector` and writes the answer to `output`. Gives a result code.
  virtual int callStructMethod(std::uint32_t selector, const void* input, std::size_t inputSize,
                               void* output, std::size_t outputSize) = 0;
};

// The outcome of looking for the service: a service, or why there is none. `matchingError` is
// non-zero when the lookup itself failed, `openError` when the service was found but couldn't
// be opened; both zero and no service means there is no controller on this machine.
struct SmcLookup {
  std::unique_ptr<SmcService> service;
  int matchingError = 0;
  int openError = 0;
};

// Looks for the controller with the installed source: by default the hwmon stand-in under
// `systemRoots().sys`.
SmcLookup findSmcService();
// Installs another source (tests wrap the stand-in to count calls); nullptr restores the default.
void setSmcServiceSource(std::function<SmcLookup()> source);

// The stand-in over the hardware monitors under `sysRoot` ("/sys" on a live system). It knows
// "TC0P" (the CPU package sensor, as "sp78"), "FNum" (the number of fans, "ui8 ") and, for each
// fan, "F%cAc", "F%cMn", "F%cMx" (input, min and max speed, "fpe2"). Values are read from sysfs
// at each read command. No hardware monitor at all means no controller.
SmcLookup hwmonSmcService(const std::string& sysRoot);

// A temperature sensor of the hardware monitors, named by its label.
struct TemperatureReading {
  std::string name;
  double celsius = 0;
};

// Every temperature sensor under `systemRoots().sys` with a current reading, in the order of the
// monitors and their inputs. A sensor without a label is named after its monitor and input
// ("acpitz temp1").
std::vector<TemperatureReading> readTemperatureSensors();

}  // namespace platform
