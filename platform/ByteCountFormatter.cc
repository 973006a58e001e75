#include "platform/ByteCountFormatter.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <cstdlib>

namespace platform {

namespace {

struct Unit {
  const char* name;
  int fractionDigits;
};

constexpr std::array<Unit, 8> kUnits = {
    {{"KB", 0}, {"MB", 1}, {"GB", 2}, {"TB", 2}, {"PB", 2}, {"EB", 2}, {"ZB", 2}, {"YB", 2}}};

std::string trimmed(std::string number) {
  if (number.find('.') == std::string::npos) return number;
  while (number.back() == '0') number.pop_back();
  if (number.back() == '.') number.pop_back();
  return number;
}

}  // namespace

std::string formatByteCount(std::int64_t bytes) {
  if (bytes == 0) return "Zero KB";
  const char* sign = bytes < 0 ? "-" : "";
  // The magnitude of INT64_MIN doesn't fit in int64_t; as unsigned it does.
  std::uint64_t magnitude =
      bytes < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(bytes) : bytes;
  if (magnitude == 1) return fmt::format("{}1 byte", sign);
  if (magnitude < 1000) return fmt::format("{}{} bytes", sign, magnitude);

  // Pick the largest unit in which the value, once rounded to that unit's digits, stays under
  // 1000: 999,999 bytes is "1 MB", not "1000 KB".
  double value = static_cast<double>(magnitude);
  for (std::size_t i = 0; i < kUnits.size(); ++i) {
    value /= 1000.0;
    double scale = std::pow(10.0, kUnits[i].fractionDigits);
    double rounded = std::round(value * scale) / scale;
    if (rounded < 1000.0 || i + 1 == kUnits.size()) {
      return fmt::format("{}{} {}", sign,
                         trimmed(fmt::format("{:.{}f}", rounded, kUnits[i].fractionDigits)),
                         kUnits[i].name);
    }
  }
  return {};
}

}  // namespace platform
