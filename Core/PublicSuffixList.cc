#include "Core/PublicSuffixList.h"

#include <vector>

#include "Core/BuiltInResource.h"
#include "resources/Resources.h"

namespace Core {

namespace {

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(separator, start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start) pieces.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return pieces;
}

PublicSuffixRule& child(PublicSuffixRule& node, std::string_view label) {
  if (!node.next) node.next.emplace();
  return (*node.next)[std::string(label)];
}

}  // namespace

std::optional<PublicSuffixList> PublicSuffixList::load(std::string_view text, std::string* error) {
  PublicSuffixList list;
  for (std::string_view line : split(text, '\n')) {
    if (line.starts_with("//")) continue;
    std::vector<std::string_view> labels = split(line, '.');
    if (labels.empty()) {
      if (error != nullptr) *error = "a rule without labels: \"" + std::string(line) + "\"";
      return std::nullopt;
    }
    // Top-level label first.
    std::vector<std::string_view> reversed(labels.rbegin(), labels.rend());
    PublicSuffixRule* node = &list.publicSuffixRules[std::string(reversed.front())];
    if (reversed.size() == 1) {
      node->isSuffix = true;
      continue;
    }
    for (std::size_t i = 1; i + 1 < reversed.size(); ++i) node = &child(*node, reversed[i]);
    std::string_view last = reversed.back();
    if (last == "*") {
      if (!node->exclude) node->exclude.emplace();
    } else if (last.starts_with("!")) {
      if (!node->exclude) node->exclude.emplace();
      node->exclude->insert(std::string(last.substr(1)));
    } else {
      child(*node, last).isSuffix = true;
    }
  }
  return list;
}

namespace {

// Made on first use; function-local statics are initialised once even when threads race.
const BuiltInResource<PublicSuffixList>& builtIn() {
  static const auto* resource = new BuiltInResource<PublicSuffixList>(
      loadBuiltIn<PublicSuffixList>("public_suffix_list.dat", [](std::string* error) {
        return PublicSuffixList::load(resources::publicSuffixList(), error);
      }));
  return *resource;
}

}  // namespace

const PublicSuffixList* PublicSuffixList::shared() { return builtIn().value.get(); }

const std::string& PublicSuffixList::sharedLoadError() { return builtIn().error; }

std::optional<std::string> PublicSuffixList::organization(std::string_view identifier) const {
  std::vector<std::string_view> labels = split(identifier, '.');
  if (labels.size() < 2) return std::nullopt;
  auto top = publicSuffixRules.find(std::string(labels[0]));
  if (top == publicSuffixRules.end()) return std::nullopt;
  const PublicSuffixRule* node = &top->second;
  for (std::size_t i = 0;; ++i) {
    if (i + 1 >= labels.size()) return std::nullopt;  // wholly inside a suffix
    std::string candidate(labels[i + 1]);
    if (node->next) {
      auto found = node->next->find(candidate);
      if (found != node->next->end()) {
        node = &found->second;
        continue;
      }
    }
    if (node->exclude) {
      // An exception to the wildcard is the answer; anything else is covered by it.
      if (node->exclude->count(candidate)) return candidate;
      if (i + 2 < labels.size()) return std::string(labels[i + 2]);
      return std::nullopt;
    }
    if (node->isSuffix) return candidate;
    return std::nullopt;
  }
}

}  // namespace Core
