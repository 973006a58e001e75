#include "platform/Yaml.h"

#include <yaml.h>

#include <memory>
#include <set>

namespace platform::yaml {

namespace {

constexpr int kMaxDepth = 64;

struct DocumentDeleter {
  void operator()(yaml_document_t* document) const {
    yaml_document_delete(document);
    delete document;
  }
};

std::optional<Node> convert(yaml_document_t* document, yaml_node_t* node, int depth,
                            std::string* error) {
  auto fail = [&](const std::string& message) -> std::optional<Node> {
    if (error != nullptr) {
      *error = "line " + std::to_string(node->start_mark.line + 1) + ": " + message;
    }
    return std::nullopt;
  };
  if (depth > kMaxDepth) return fail("nested too deeply");
  Node out;
  out.line = static_cast<int>(node->start_mark.line) + 1;
  switch (node->type) {
    case YAML_SCALAR_NODE:
      out.content = std::string(reinterpret_cast<const char*>(node->data.scalar.value),
                                node->data.scalar.length);
      return out;
    case YAML_SEQUENCE_NODE: {
      List list;
      for (yaml_node_item_t* item = node->data.sequence.items.start;
           item < node->data.sequence.items.top; ++item) {
        auto child = convert(document, yaml_document_get_node(document, *item), depth + 1, error);
        if (!child) return std::nullopt;
        list.push_back(std::move(*child));
      }
      out.content = std::move(list);
      return out;
    }
    case YAML_MAPPING_NODE: {
      Mapping mapping;
      std::set<std::string> seen;
      for (yaml_node_pair_t* pair = node->data.mapping.pairs.start;
           pair < node->data.mapping.pairs.top; ++pair) {
        yaml_node_t* key = yaml_document_get_node(document, pair->key);
        if (key == nullptr || key->type != YAML_SCALAR_NODE)
          return fail("a key that isn't a string");
        std::string name(reinterpret_cast<const char*>(key->data.scalar.value),
                         key->data.scalar.length);
        if (!seen.insert(name).second) return fail("the key \"" + name + "\" occurs twice");
        auto value =
            convert(document, yaml_document_get_node(document, pair->value), depth + 1, error);
        if (!value) return std::nullopt;
        mapping.emplace_back(std::move(name), std::move(*value));
      }
      out.content = std::move(mapping);
      return out;
    }
    default:
      return fail("an empty node");
  }
}

}  // namespace

std::optional<Node> parse(std::string_view text, std::string* error) {
  yaml_parser_t parser;
  if (!yaml_parser_initialize(&parser)) {
    if (error != nullptr) *error = "the YAML parser can't start";
    return std::nullopt;
  }
  yaml_parser_set_input_string(&parser, reinterpret_cast<const unsigned char*>(text.data()),
                               text.size());
  std::unique_ptr<yaml_document_t, DocumentDeleter> document(new yaml_document_t);
  if (!yaml_parser_load(&parser, document.get())) {
    if (error != nullptr) {
      *error = "line " + std::to_string(parser.problem_mark.line + 1) + ": " +
               (parser.problem != nullptr ? parser.problem : "not YAML");
    }
    yaml_parser_delete(&parser);
    delete document.release();  // nothing was loaded into it
    return std::nullopt;
  }
  // A second document in the same text is refused: the rules are one mapping.
  yaml_document_t extra;
  bool readable = yaml_parser_load(&parser, &extra) != 0;
  bool more = readable && yaml_document_get_root_node(&extra) != nullptr;
  if (readable) yaml_document_delete(&extra);  // a failed load has cleaned up after itself
  if (!readable || more) {
    if (error != nullptr) {
      *error = !readable ? "line " + std::to_string(parser.problem_mark.line + 1) + ": " +
                               (parser.problem != nullptr ? parser.problem : "not YAML")
                         : "more than one document";
    }
    yaml_parser_delete(&parser);
    return std::nullopt;
  }
  yaml_parser_delete(&parser);
  yaml_node_t* root = yaml_document_get_root_node(document.get());
  if (root == nullptr) {
    if (error != nullptr) *error = "an empty document";
    return std::nullopt;
  }
  return convert(document.get(), root, 0, error);
}

}  // namespace platform::yaml
