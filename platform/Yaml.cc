#include "platform/Yaml.h"

#include <yaml.h>

#include <algorithm>
#include <memory>
#include <set>

namespace platform::yaml {

namespace {

// Rule documents are a few hundred kilobytes at most and a few levels deep; these bounds keep a
// hostile document from costing more than a moment.
constexpr std::size_t kMaxDocumentBytes = 8 * 1024 * 1024;
constexpr int kMaxDepth = 64;

struct ParserDeleter {
  void operator()(yaml_parser_t* parser) const {
    yaml_parser_delete(parser);
    delete parser;
  }
};

struct Event {
  yaml_event_t event;
  ~Event() { yaml_event_delete(&event); }
};

// A plain scalar that YAML's core schema reads as null: nothing, "~" or "null".
bool isNull(const yaml_event_t& event) {
  if (event.data.scalar.style != YAML_PLAIN_SCALAR_STYLE) return false;
  std::string_view value(reinterpret_cast<const char*>(event.data.scalar.value),
                         event.data.scalar.length);
  return value.empty() || value == "~" || value == "null" || value == "Null" || value == "NULL";
}

// The line of byte `offset` of `text`, from 1.
int lineAt(std::string_view text, std::size_t offset) {
  offset = std::min(offset, text.size());
  return 1 + static_cast<int>(std::count(text.begin(), text.begin() + offset, '\n'));
}

class Builder {
 public:
  explicit Builder(std::string_view text) : text_(text) {}

  std::optional<Node> run(std::string* error) {
    std::unique_ptr<yaml_parser_t, ParserDeleter> parser(new yaml_parser_t);
    if (!yaml_parser_initialize(parser.get())) {
      delete parser.release();
      return fail(error, "the YAML parser can't start");
    }
    yaml_parser_set_input_string(parser.get(), reinterpret_cast<const unsigned char*>(text_.data()),
                                 text_.size());
    int documents = 0;
    for (;;) {
      Event holder;
      if (!yaml_parser_parse(parser.get(), &holder.event)) {
        // The reader's errors (bytes that aren't UTF-8, control characters) have an offset but
        // no position; the scanner's and the parser's have a position.
        int line = parser->error == YAML_READER_ERROR
                       ? lineAt(text_, parser->problem_offset)
                       : static_cast<int>(parser->problem_mark.line) + 1;
        return fail(error, "line " + std::to_string(line) + ": " +
                               (parser->problem != nullptr ? parser->problem : "not YAML"));
      }
      const yaml_event_t& event = holder.event;
      const int line = static_cast<int>(event.start_mark.line) + 1;
      switch (event.type) {
        case YAML_STREAM_END_EVENT:
          if (!root_) return fail(error, "an empty document");
          return std::move(root_);
        case YAML_DOCUMENT_START_EVENT:
          if (++documents > 1) return fail(error, "more than one document");
          break;
        case YAML_ALIAS_EVENT:
          return fail(error, at(line) + "an alias (*" + name(event.data.alias.anchor) +
                                 "): rule documents hold strings, lists and mappings only");
        case YAML_SCALAR_EVENT: {
          if (auto refused = refuse(event.data.scalar.anchor, event.data.scalar.tag, line)) {
            return fail(error, *refused);
          }
          Node node;
          node.line = line;
          node.null = isNull(event);
          node.content = std::string(reinterpret_cast<const char*>(event.data.scalar.value),
                                     event.data.scalar.length);
          if (auto problem = add(std::move(node))) return fail(error, *problem);
          break;
        }
        case YAML_SEQUENCE_START_EVENT:
        case YAML_MAPPING_START_EVENT: {
          bool sequence = event.type == YAML_SEQUENCE_START_EVENT;
          if (auto refused = refuse(
                  sequence ? event.data.sequence_start.anchor : event.data.mapping_start.anchor,
                  sequence ? event.data.sequence_start.tag : event.data.mapping_start.tag, line)) {
            return fail(error, *refused);
          }
          if (stack_.size() >= kMaxDepth) return fail(error, at(line) + "nested too deeply");
          Frame frame;
          frame.node.line = line;
          if (sequence) {
            frame.node.content = List{};
          } else {
            frame.node.content = Mapping{};
          }
          stack_.push_back(std::move(frame));
          break;
        }
        case YAML_SEQUENCE_END_EVENT:
        case YAML_MAPPING_END_EVENT: {
          Node node = std::move(stack_.back().node);
          stack_.pop_back();
          if (auto problem = add(std::move(node))) return fail(error, *problem);
          break;
        }
        default:
          break;  // stream start, document end
      }
    }
  }

 private:
  struct Frame {
    Node node;
    std::optional<std::string> key;  // a mapping's key waiting for its value
    std::set<std::string> keys;
  };

  static std::string at(int line) { return "line " + std::to_string(line) + ": "; }
  static std::string name(const yaml_char_t* text) {
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
  }

  static std::optional<Node> fail(std::string* error, const std::string& message) {
    if (error != nullptr) *error = message;
    return std::nullopt;
  }

  // Anchors, aliases and tags make a document a graph or give it types; a rule document is a
  // tree of strings.
  static std::optional<std::string> refuse(const yaml_char_t* anchor, const yaml_char_t* tag,
                                           int line) {
    if (anchor != nullptr) {
      return at(line) + "an anchor (&" + name(anchor) +
             "): rule documents hold strings, lists and mappings only";
    }
    if (tag != nullptr) {
      return at(line) + "a tag (" + name(tag) +
             "): rule documents hold strings, lists and mappings only";
    }
    return std::nullopt;
  }

  // Hangs a finished node where it belongs; a problem when it can't be.
  std::optional<std::string> add(Node node) {
    if (stack_.empty()) {
      root_ = std::move(node);
      return std::nullopt;
    }
    Frame& parent = stack_.back();
    if (auto* list = std::get_if<List>(&parent.node.content)) {
      list->push_back(std::move(node));
      return std::nullopt;
    }
    auto& mapping = std::get<Mapping>(parent.node.content);
    if (!parent.key) {
      const std::string* key = node.string();
      if (key == nullptr) return at(node.line) + "a key that isn't a string";
      if (!parent.keys.insert(*key).second) {
        return at(node.line) + "the key \"" + *key + "\" occurs twice";
      }
      parent.key = *key;
      return std::nullopt;
    }
    mapping.push_back(MappingEntry{std::move(*parent.key), std::move(node)});
    parent.key.reset();
    return std::nullopt;
  }

  std::string_view text_;
  std::vector<Frame> stack_;
  std::optional<Node> root_;
};

}  // namespace

std::optional<Node> parse(std::string_view text, std::string* error) {
  if (text.size() > kMaxDocumentBytes) {
    if (error != nullptr) *error = "the document is larger than 8 MiB";
    return std::nullopt;
  }
  return Builder(text).run(error);
}

}  // namespace platform::yaml
