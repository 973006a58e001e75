// /proc/self/mountinfo, whose paths carry octal escapes.
#include "fuzz/FuzzSupport.h"
#include "platform/Locations.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const auto& mount : platform::parseMountInfo(text)) {
    fuzz::require(mount.path.size() <= text.size());
  }
  return 0;
}
