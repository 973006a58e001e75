#include "resources/Resources.h"

// The resources are part of the product: they are built into the library rather than looked
// for on disk at run time, so that no installation can lose them.
__asm__(
    ".section .rodata\n"
    ".balign 16\n"
    "ravelinPublicSuffixList:\n"
    ".incbin \"" RAVELIN_RESOURCE_DIR
    "/public_suffix_list.dat\"\n"
    "ravelinPublicSuffixListEnd:\n"
    "ravelinRuleDocument:\n"
    ".incbin \"" RAVELIN_RESOURCE_DIR
    "/rule.yaml\"\n"
    "ravelinRuleDocumentEnd:\n"
    ".previous\n");

extern "C" const char ravelinPublicSuffixList[];
extern "C" const char ravelinPublicSuffixListEnd[];
extern "C" const char ravelinRuleDocument[];
extern "C" const char ravelinRuleDocumentEnd[];

namespace resources {

std::string_view publicSuffixList() {
  return std::string_view(
      ravelinPublicSuffixList,
      static_cast<std::size_t>(ravelinPublicSuffixListEnd - ravelinPublicSuffixList));
}

std::string_view ruleDocument() {
  return std::string_view(ravelinRuleDocument,
                          static_cast<std::size_t>(ravelinRuleDocumentEnd - ravelinRuleDocument));
}

}  // namespace resources
