// Size arguments of the host ("10M", "1.5G", "2TB").
#include "fuzz/FuzzSupport.h"
#include "host/Host.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto bytes = host::parseSize(text)) fuzz::require(*bytes >= 0);
  // Printed text reads back to the same bytes.
  fuzz::require(host::unescapeText(host::displayText(text)) == std::string(text));
  return 0;
}
