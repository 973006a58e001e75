// Property lists, binary and XML, as bundles, containers and photo libraries hold them.
#include "fuzz/FuzzSupport.h"
#include "platform/Plist.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (auto value = platform::plist::parse(bytes)) {
    // Whatever was read can be written in both forms and read again without harm. (libplist
    // writes a binary list it can't read back for text that isn't UTF-8, so only safety is
    // asked of the second reading.)
    for (auto format : {platform::plist::Format::xml, platform::plist::Format::binary}) {
      platform::plist::parse(platform::plist::serialize(*value, format));
    }
  }
  return 0;
}
