#pragma once

// YAML documents as strings, lists and mappings, read with libyaml's event parser. Anything else
// the text might hold (anchors, aliases, tags, several documents) is refused, and so are documents
// over 8 MiB and nesting deeper than 64 levels, so a hostile document costs a moment at most.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace platform::yaml {

struct Node;
struct MappingEntry;
using List = std::vector<Node>;
// Mapping entries in document order. A key that occurs twice is refused at parsing.
using Mapping = std::vector<MappingEntry>;

struct Node {
  std::variant<std::string, List, Mapping> content;
  int line = 0;       // where the node starts, from 1
  bool null = false;  // a plain "", "~" or "null": the text is there, but it means nothing

  const std::string* string() const { return std::get_if<std::string>(&content); }
  const List* list() const { return std::get_if<List>(&content); }
  const Mapping* mapping() const { return std::get_if<Mapping>(&content); }
};

struct MappingEntry {
  std::string first;  // the key
  Node second;        // its value
};

// The one document of `text`; nothing, with `error` saying what and where, when it can't be read
// as strings, lists and mappings with keys that are strings.
std::optional<Node> parse(std::string_view text, std::string* error = nullptr);

}  // namespace platform::yaml
