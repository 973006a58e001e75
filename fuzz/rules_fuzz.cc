// Rule documents, as `ravelin rules --check` reads them: the YAML, the keys, the path strings and
// their priorities, then the compile and a lookup.
#include "Core/AppFileRule.h"
#include "Core/RuleManager.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::string error;
  auto manager = Core::RuleManager::load(bytes, platform::Locations::underRoot("/fuzz"), &error);
  if (!manager) {
    fuzz::require(!error.empty());
    return 0;
  }
  for (bool support : {false, true}) {
    Core::AppFileRule forest(support, *manager);
    forest.matcherIDs("org.example.app");
    forest.nodeCounts();
  }
  manager->extraInfo("org.example.app");
  return 0;
}
