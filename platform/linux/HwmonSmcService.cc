#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/Files.h"
#include "platform/Smc.h"
#include "platform/SystemRoots.h"

namespace platform {

namespace {

struct HwmonTemperature {
  int index = 0;
  std::string label;
  std::string input;
};

struct HwmonFan {
  int index = 0;
  std::string input;
  std::string minimum;  // empty when the driver has no such file
  std::string maximum;
};

struct HwmonDevice {
  std::string name;
  std::vector<HwmonTemperature> temperatures;
  std::vector<HwmonFan> fans;
};

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

std::optional<std::int64_t> readInteger(const std::string& path) {
  auto text = readSmallFile(path);
  if (!text) return std::nullopt;
  std::string value = trimmed(*text);
  std::int64_t number = 0;
  auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (error != std::errc() || end != value.data() + value.size()) return std::nullopt;
  return number;
}

// "temp12_input" with prefix "temp" and suffix "_input" gives 12.
std::optional<int> indexOf(const std::string& file, std::string_view prefix,
                           std::string_view suffix) {
  if (file.size() <= prefix.size() + suffix.size() || !file.starts_with(prefix) ||
      !file.ends_with(suffix)) {
    return std::nullopt;
  }
  std::string_view digits(file.data() + prefix.size(), file.size() - prefix.size() - suffix.size());
  int index = 0;
  auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), index);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return index;
}

// The hardware monitors under `sysRoot`, ordered by their number. `failed` is set when the
// class folder exists but can't be listed.
std::vector<HwmonDevice> scanHwmon(const std::string& sysRoot, int& failure) {
  failure = 0;
  std::string classDir = sysRoot + "/class/hwmon";
  auto listing = listDirectory(classDir, Follow::yes);
  if (!listing.ok()) {
    if (listing.error().code != ENOENT && listing.error().code != ENOTDIR) failure = kSmcError;
    return {};
  }
  std::vector<std::pair<int, std::string>> monitors;
  for (const auto& entry : *listing) {
    if (auto n = indexOf(entry.name + "_", "hwmon", "_")) monitors.emplace_back(*n, entry.name);
  }
  std::sort(monitors.begin(), monitors.end());

  std::vector<HwmonDevice> devices;
  for (const auto& [number, entryName] : monitors) {
    // Older drivers keep their attributes in the device folder rather than the class folder.
    std::string dir = classDir + "/" + entryName;
    if (!fileExists(dir + "/name", Follow::yes) && fileExists(dir + "/device/name", Follow::yes)) {
      dir += "/device";
    }
    auto files = listDirectory(dir, Follow::yes);
    if (!files.ok()) continue;
    HwmonDevice device;
    device.name = trimmed(readSmallFile(dir + "/name").value_or(""));
    for (const auto& file : *files) {
      if (auto i = indexOf(file.name, "temp", "_input")) {
        std::string label =
            trimmed(readSmallFile(dir + "/temp" + std::to_string(*i) + "_label").value_or(""));
        device.temperatures.push_back({*i, label, dir + "/" + file.name});
      } else if (auto f = indexOf(file.name, "fan", "_input")) {
        std::string base = dir + "/fan" + std::to_string(*f);
        device.fans.push_back({*f, base + "_input",
                               fileExists(base + "_min", Follow::yes) ? base + "_min" : "",
                               fileExists(base + "_max", Follow::yes) ? base + "_max" : ""});
      }
    }
    auto byIndex = [](const auto& a, const auto& b) { return a.index < b.index; };
    std::sort(device.temperatures.begin(), device.temperatures.end(), byIndex);
    std::sort(device.fans.begin(), device.fans.end(), byIndex);
    devices.push_back(std::move(device));
  }
  return devices;
}

// The input of the CPU package sensor: Intel's "Package id 0", else AMD's die temperature,
// else AMD's control temperature.
std::string cpuPackageInput(const std::vector<HwmonDevice>& devices) {
  for (const char* wanted : {"Package id 0", "Tdie", "Tctl"}) {
    for (const auto& device : devices) {
      bool matchingDriver = std::string_view(wanted) == "Package id 0"
                                ? device.name == "coretemp"
                                : device.name == "k10temp" || device.name == "zenpower";
      if (!matchingDriver) continue;
      for (const auto& sensor : device.temperatures) {
        if (sensor.label == wanted) return sensor.input;
      }
    }
  }
  return {};
}

std::uint32_t keyNumber(const char* text) {
  return (std::uint32_t(static_cast<unsigned char>(text[0])) << 24) |
         (std::uint32_t(static_cast<unsigned char>(text[1])) << 16) |
         (std::uint32_t(static_cast<unsigned char>(text[2])) << 8) |
         std::uint32_t(static_cast<unsigned char>(text[3]));
}

// Offsets of the 80-byte parameter record.
constexpr std::size_t kRecordSize = 80;
constexpr std::size_t kKeyOffset = 0;
constexpr std::size_t kDataSizeOffset = 28;
constexpr std::size_t kDataTypeOffset = 32;
constexpr std::size_t kCommandOffset = 42;
constexpr std::size_t kBytesOffset = 48;
constexpr std::uint8_t kReadKeyInfo = 9;
constexpr std::uint8_t kReadBytes = 5;
constexpr std::uint32_t kSelector = 2;

class HwmonSmcService final : public SmcService {
 public:
  explicit HwmonSmcService(const std::vector<HwmonDevice>& devices) {
    std::string package = cpuPackageInput(devices);
    if (!package.empty()) {
      // sp78: signed fixed point with 8 fraction bits, top byte first.
      add("TC0P", "sp78", 2, [package](std::uint8_t* out) {
        auto milli = readInteger(package);
        if (!milli) return false;
        long value = std::lround(std::clamp<double>(static_cast<double>(*milli), 0, 255999) *
                                 256.0 / 1000.0);
        out[0] = static_cast<std::uint8_t>(value >> 8);
        out[1] = static_cast<std::uint8_t>(value & 0xFF);
        return true;
      });
    }
    std::vector<HwmonFan> fans;
    for (const auto& device : devices)
      fans.insert(fans.end(), device.fans.begin(), device.fans.end());
    std::size_t count = std::min<std::size_t>(fans.size(), 255);
    add("FNum", "ui8 ", 1, [count](std::uint8_t* out) {
      out[0] = static_cast<std::uint8_t>(count);
      return true;
    });
    static constexpr char kIndex[] = "0123456789ABCDEFGHIJ";
    for (std::size_t i = 0; i < count && i < sizeof(kIndex) - 1; ++i) {
      const char c = kIndex[i];
      addFanKey(std::string("F") + c + "Ac", fans[i].input);
      addFanKey(std::string("F") + c + "Mn", fans[i].minimum);
      addFanKey(std::string("F") + c + "Mx", fans[i].maximum);
    }
  }

  int callStructMethod(std::uint32_t selector, const void* input, std::size_t inputSize,
                       void* output, std::size_t outputSize) override {
    if (selector != kSelector) return kSmcUnsupported;
    if (input == nullptr || output == nullptr || inputSize != kRecordSize ||
        outputSize != kRecordSize) {
      return kSmcBadArgument;
    }
    std::uint8_t request[kRecordSize];
    std::memcpy(request, input, kRecordSize);
    std::uint8_t answer[kRecordSize] = {};
    std::uint32_t key;
    std::memcpy(&key, request + kKeyOffset, 4);
    std::memcpy(answer + kKeyOffset, &key, 4);

    auto found = keys_.find(key);
    if (found == keys_.end()) return kSmcNotFound;
    const Key& k = found->second;
    switch (request[kCommandOffset]) {
      case kReadKeyInfo: {
        std::memcpy(answer + kDataSizeOffset, &k.size, 4);
        std::memcpy(answer + kDataTypeOffset, &k.type, 4);
        break;
      }
      case kReadBytes:
        if (!k.read(answer + kBytesOffset)) return kSmcError;
        break;
      default:
        return kSmcBadArgument;
    }
    std::memcpy(output, answer, kRecordSize);
    return kSmcSuccess;
  }

 private:
  struct Key {
    std::uint32_t type;
    std::uint32_t size;
    std::function<bool(std::uint8_t*)> read;
  };

  void add(const std::string& key, const char* type, std::uint32_t size,
           std::function<bool(std::uint8_t*)> read) {
    keys_[keyNumber(key.c_str())] = Key{keyNumber(type), size, std::move(read)};
  }

  // fpe2: unsigned fixed point with 2 fraction bits, top byte first.
  void addFanKey(const std::string& key, const std::string& file) {
    if (file.empty()) return;
    add(key, "fpe2", 2, [file](std::uint8_t* out) {
      auto rpm = readInteger(file);
      if (!rpm) return false;
      // Clamped before scaling: a sysfs value of any size must not overflow the multiplication.
      long value = std::clamp<std::int64_t>(*rpm, 0, 0xFFFF / 4) * 4;
      out[0] = static_cast<std::uint8_t>(value >> 8);
      out[1] = static_cast<std::uint8_t>(value & 0xFF);
      return true;
    });
  }

  std::map<std::uint32_t, Key> keys_;
};

struct SourceState {
  std::mutex mutex;
  std::function<SmcLookup()> source;
};

SourceState& sourceState() {
  static auto* state = new SourceState;
  return *state;
}

}  // namespace

SmcLookup hwmonSmcService(const std::string& sysRoot) {
  SmcLookup lookup;
  auto devices = scanHwmon(sysRoot, lookup.matchingError);
  if (lookup.matchingError != 0 || devices.empty()) return lookup;
  lookup.service = std::make_unique<HwmonSmcService>(devices);
  return lookup;
}

SmcLookup findSmcService() {
  std::function<SmcLookup()> source;
  {
    std::lock_guard lock(sourceState().mutex);
    source = sourceState().source;
  }
  return source ? source() : hwmonSmcService(systemRoots().sys);
}

void setSmcServiceSource(std::function<SmcLookup()> source) {
  std::lock_guard lock(sourceState().mutex);
  sourceState().source = std::move(source);
}

std::vector<TemperatureReading> readTemperatureSensors() {
  int failure = 0;
  std::vector<TemperatureReading> readings;
  for (const auto& device : scanHwmon(systemRoots().sys, failure)) {
    for (const auto& sensor : device.temperatures) {
      auto milli = readInteger(sensor.input);
      if (!milli) continue;
      std::string name = !sensor.label.empty()
                             ? sensor.label
                             : device.name + " temp" + std::to_string(sensor.index);
      readings.push_back({name, *milli / 1000.0});
    }
  }
  return readings;
}

}  // namespace platform
