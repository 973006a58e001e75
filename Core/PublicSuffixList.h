#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace Core {

// One node of the suffix tree, keyed by label from the top-level label down.
struct PublicSuffixRule {
  bool isSuffix = false;  // the labels leading here are themselves a public suffix
  std::optional<std::map<std::string, PublicSuffixRule>> next;
  // Present when this node has a wildcard rule; holds the exceptions to it.
  std::optional<std::set<std::string>> exclude;
};

// The Public Suffix List as a tree, answering one question: which label of a bundle identifier
// (a reversed domain name) names its maker. Labels are compared exactly, with case.
// Read-only once built; safe to share between threads.
class PublicSuffixList {
 public:
  // Builds the tree from the list's published text. Nothing, with `error` set to the line at
  // fault, when a rule line has no label at all.
  static std::optional<PublicSuffixList> load(std::string_view text, std::string* error = nullptr);

  // The list built into the library, loaded on first use. nullptr when the built-in list is
  // defective; `sharedLoadError()` then says why. No partial tree is ever used.
  static const PublicSuffixList* shared();
  static const std::string& sharedLoadError();

  // The label just after the public suffix of `identifier` ("example" for "com.example.tool",
  // also for "uk.co.example.tool"); nothing when the identifier lies within a suffix or its
  // top-level label isn't listed.
  std::optional<std::string> organization(std::string_view identifier) const;

  std::map<std::string, PublicSuffixRule> publicSuffixRules;
};

}  // namespace Core
