// A macOS-layout bundle's Info.plist and an iPhone application container's metadata, as found on
// a disk.
#include "Core/AppBundle.h"
#include "Core/IOSAppUUIDMapper.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string app = fuzz::scratch() + "/Fuzz.app";
  fuzz::put("Fuzz.app/Contents/Info.plist", bytes);
  fuzz::put("Fuzz.app/Contents/MacOS/main", "#!");
  if (auto bundle = Core::MacAppBundle::make(app)) {
    fuzz::require(!bundle->bundleNames.empty());
    bundle->loadNestedBundles();
  }
  Core::readBundleIdentifier(app);
  fuzz::put(
      "home/Library/Containers/01234567-89AB-CDEF-0123-456789ABCDEF/"
      ".com.apple.containermanagerd.metadata.plist",
      bytes);
  Core::IOSAppUUIDMapper mapper(fuzz::scratch() + "/home");
  auto uuid = mapper.uuid(Core::CaseInsensitiveString("com.example.app"));
  fuzz::require(!uuid.origin().empty());
  return 0;
}
