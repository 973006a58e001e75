// Desktop entries of the application folders, and the listing that finds them.
#include "Core/AppBundle.h"
#include "fuzz/FuzzSupport.h"
#include "platform/Applications.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string path = fuzz::put("applications/org.example.Fuzz.desktop", bytes);
  if (auto bundle = Core::DesktopAppBundle::make(path, "org.example.Fuzz.desktop")) {
    fuzz::require(bundle->bundleID.origin() == "org.example.Fuzz");
    fuzz::require(!bundle->bundleNames.empty());
    bundle->loadNestedBundles();
  }
  platform::Locations locations = platform::Locations::underRoot(fuzz::scratch());
  locations.applications = {fuzz::scratch() + "/applications"};
  for (const auto& url : platform::applicationURLs(locations)) fuzz::require(!url.empty());
  return 0;
}
