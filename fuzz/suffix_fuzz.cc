// The public suffix list's text form, and the organization of a few identifiers under it.
#include "Core/PublicSuffixList.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  auto parts = fuzz::parts(bytes, 2);
  std::string error;
  auto list = Core::PublicSuffixList::load(parts[1], &error);
  if (!list) return 0;
  for (std::string_view id : {std::string_view("com.example.tool"), parts[0],
                              std::string_view("uk.co.example.app"), std::string_view("")}) {
    if (auto organization = list->organization(id)) fuzz::require(!organization->empty());
  }
  return 0;
}
