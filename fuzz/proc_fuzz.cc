// The /proc files of the machine's statistics: processors, memory, network interfaces.
#include "fuzz/FuzzSupport.h"
#include "platform/HostStatistics.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto parts = fuzz::parts(text, 3);
  if (auto processors = platform::parseProcStat(parts[0])) {
    fuzz::require(processors->size() <= parts[0].size());
  }
  platform::parseMeminfo(parts[1]);
  platform::parseNetDev(parts[2]);
  return 0;
}
