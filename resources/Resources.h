#pragma once

#include <string_view>

namespace resources {

// The Public Suffix List in its published text form, built into the library.
std::string_view publicSuffixList();

// The rule document, rule.yaml, built into the library.
std::string_view ruleDocument();

}  // namespace resources
