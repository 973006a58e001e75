#include "platform/Plist.h"

#include <plist/plist.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>

#include "platform/Files.h"

namespace platform::plist {

namespace {

// Deeper nesting than this is refused. Real property lists stay far below it, and libplist
// walks nested containers recursively, so a hostile file could otherwise exhaust the stack.
constexpr int kMaxDepth = 128;
constexpr std::size_t kMaxInputSize = std::numeric_limits<uint32_t>::max();

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistHandle = std::unique_ptr<void, PlistFree>;

bool isBinary(std::string_view bytes) { return bytes.substr(0, 6) == "bplist"; }

// Nesting depth of <dict> and <array> elements in an XML property list, counted before libplist
// sees the text. Comments, CDATA and strings can't fool the limit into letting deeper input
// through: counting more opening tags than are real only refuses more.
int xmlNestingDepth(std::string_view text) {
  int depth = 0;
  int deepest = 0;
  for (std::size_t i = text.find('<'); i != std::string_view::npos; i = text.find('<', i + 1)) {
    std::string_view rest = text.substr(i + 1);
    if (rest.starts_with("dict>") || rest.starts_with("array>")) {
      deepest = std::max(deepest, ++depth);
    } else if (rest.starts_with("/dict>") || rest.starts_with("/array>")) {
      depth = std::max(0, depth - 1);
    }
  }
  return deepest;
}

// libplist trusts the structure of a binary list more than a hostile file deserves: it follows
// object references recursively (so deep or cyclic references exhaust the stack, and shared ones
// can expand exponentially) and it asserts that strings hold no NUL byte. This walk checks the
// structure first: every offset and reference in bounds, no cycle, nesting within `kMaxDepth`,
// the expanded tree within `kMaxExpandedNodes`, and no NUL inside a string or key.
constexpr std::uint64_t kMaxExpandedNodes = 4'000'000;

class BinaryStructureCheck {
 public:
  explicit BinaryStructureCheck(std::string_view bytes) : bytes_(bytes) {}

  bool run() {
    if (bytes_.size() < 8 + 32) return false;
    std::size_t trailer = bytes_.size() - 32;
    offsetSize_ = byte(trailer + 6);
    refSize_ = byte(trailer + 7);
    std::uint64_t count = readInt(trailer + 8, 8);
    std::uint64_t top = readInt(trailer + 16, 8);
    std::uint64_t tableOffset = readInt(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return false;
    if (count == 0 || top >= count || tableOffset < 8 || tableOffset >= trailer) return false;
    if (count > (trailer - tableOffset) / offsetSize_) return false;
    tableOffset_ = tableOffset;
    count_ = count;
    state_.assign(count, State{});
    return visit(top);
  }

 private:
  struct State {
    std::uint8_t mark = 0;  // 0 unseen, 1 on the current path, 2 done
    std::uint32_t depth = 0;
    std::uint64_t expanded = 0;
  };
  struct Frame {
    std::uint64_t object;
    std::vector<std::uint64_t> children;
    std::size_t next = 0;
  };

  unsigned byte(std::size_t at) const { return static_cast<unsigned char>(bytes_[at]); }

  std::uint64_t readInt(std::size_t at, unsigned size) const {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i) value = (value << 8) | byte(at + i);
    return value;
  }

  // Reads the element count that follows a marker; `at` moves past it.
  bool count(unsigned marker, std::size_t& at, std::uint64_t& n) const {
    n = marker & 0x0F;
    if (n != 0x0F) return true;
    if (at >= tableOffset_) return false;
    unsigned intMarker = byte(at++);
    if ((intMarker & 0xF0) != 0x10 || (intMarker & 0x0F) > 3) return false;
    unsigned size = 1u << (intMarker & 0x0F);
    if (at + size > tableOffset_) return false;
    n = readInt(at, size);
    at += size;
    return true;
  }

  // The objects an object refers to; false when the object is malformed.
  bool children(std::uint64_t object, std::vector<std::uint64_t>& out) const {
    std::uint64_t offset = readInt(tableOffset_ + object * offsetSize_, offsetSize_);
    if (offset < 8 || offset >= tableOffset_) return false;
    std::size_t at = static_cast<std::size_t>(offset);
    unsigned marker = byte(at++);
    std::uint64_t n = 0;
    switch (marker >> 4) {
      case 0x5:    // ASCII string
      case 0x6: {  // UTF-16 string
        if (!count(marker, at, n)) return false;
        std::uint64_t unit = (marker >> 4) == 0x6 ? 2 : 1;
        if (n > (tableOffset_ - at) / unit) return false;
        for (std::uint64_t i = 0; i < n; ++i) {
          if (unit == 1 ? byte(at + i) == 0 : (byte(at + 2 * i) | byte(at + 2 * i + 1)) == 0) {
            return false;
          }
        }
        return true;
      }
      case 0xA:    // array
      case 0xC:    // set
      case 0xD: {  // dictionary: keys, then values
        if (!count(marker, at, n)) return false;
        if ((marker >> 4) == 0xD) {
          if (n > std::numeric_limits<std::uint64_t>::max() / 2) return false;
          n *= 2;
        }
        if (n > (tableOffset_ - at) / refSize_) return false;
        out.reserve(static_cast<std::size_t>(n));
        for (std::uint64_t i = 0; i < n; ++i) {
          std::uint64_t ref = readInt(at + i * refSize_, refSize_);
          if (ref >= count_) return false;
          out.push_back(ref);
        }
        return true;
      }
      default:
        return true;  // scalars: libplist checks their sizes itself
    }
  }

  bool visit(std::uint64_t top) {
    std::vector<Frame> stack;
    auto enter = [&](std::uint64_t object) {
      Frame frame{object, {}, 0};
      if (!children(object, frame.children)) return false;
      state_[object].mark = 1;
      stack.push_back(std::move(frame));
      return stack.size() <= static_cast<std::size_t>(kMaxDepth);
    };
    if (!enter(top)) return false;
    while (!stack.empty()) {
      Frame& frame = stack.back();
      if (frame.next < frame.children.size()) {
        std::uint64_t child = frame.children[frame.next++];
        if (state_[child].mark == 1) return false;  // a cycle
        if (state_[child].mark == 0 && !enter(child)) return false;
        continue;
      }
      State& done = state_[frame.object];
      done.mark = 2;
      done.expanded = 1;
      done.depth = 1;
      for (std::uint64_t child : frame.children) {
        done.expanded += state_[child].expanded;
        done.depth = std::max(done.depth, state_[child].depth + 1);
        if (done.expanded > kMaxExpandedNodes || done.depth > kMaxDepth) return false;
      }
      stack.pop_back();
    }
    return true;
  }

  std::string_view bytes_;
  unsigned offsetSize_ = 0;
  unsigned refSize_ = 0;
  std::uint64_t tableOffset_ = 0;
  std::uint64_t count_ = 0;
  std::vector<State> state_;
};

// XML has no references, but libplist reads nested elements recursively, and a NUL byte or a
// character reference to NUL inside a key or string trips its assertions.
bool xmlIsSafe(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return false;
  for (std::size_t at = text.find("&#"); at != std::string_view::npos;
       at = text.find("&#", at + 2)) {
    std::size_t i = at + 2;
    bool hex = i < text.size() && (text[i] == 'x' || text[i] == 'X');
    if (hex) ++i;
    while (i < text.size() && text[i] == '0') ++i;
    if (i < text.size() && text[i] == ';') return false;
  }
  return xmlNestingDepth(text) <= kMaxDepth;
}

std::optional<Value> convert(plist_t node, int depth) {
  if (node == nullptr || depth > kMaxDepth) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return Value(value != 0);
    }
    case PLIST_UINT: {
      uint64_t value = 0;
      plist_get_uint_val(node, &value);
      // libplist keeps negative integers in two's complement.
      return Value(static_cast<std::int64_t>(value));
    }
    case PLIST_UID: {
      uint64_t value = 0;
      plist_get_uid_val(node, &value);
      return Value(static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return Value(value);
    }
    case PLIST_STRING: {
      // The pointer accessors take the stored length as it is; the copying ones assert that a
      // string holds no NUL byte, which a hostile binary list can break.
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return Value(text ? std::string(text, length) : std::string());
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
      return Value(bytes ? Data(begin, begin + length) : Data());
    }
    case PLIST_DATE: {
      int32_t seconds = 0;
      int32_t microseconds = 0;
      plist_get_date_val(node, &seconds, &microseconds);
      return Value(Date{seconds + microseconds / 1e6});
    }
    case PLIST_ARRAY: {
      Array array;
      uint32_t n = plist_array_get_size(node);
      array.reserve(n);
      for (uint32_t i = 0; i < n; ++i) {
        auto item = convert(plist_array_get_item(node, i), depth + 1);
        if (!item) return std::nullopt;
        array.push_back(std::move(*item));
      }
      return Value(std::move(array));
    }
    case PLIST_DICT: {
      Dictionary dictionary;
      plist_dict_iter iter = nullptr;
      plist_dict_new_iter(node, &iter);
      if (iter == nullptr) return Value(std::move(dictionary));
      bool ok = true;
      for (;;) {
        char* key = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, iter, &key, &child);
        if (child == nullptr || key == nullptr) {
          free(key);
          break;
        }
        auto item = convert(child, depth + 1);
        if (!item) {
          free(key);
          ok = false;
          break;
        }
        dictionary.insert_or_assign(std::string(key), std::move(*item));
        free(key);
      }
      free(iter);
      if (!ok) return std::nullopt;
      return Value(std::move(dictionary));
    }
    default:
      return std::nullopt;
  }
}

plist_t toNode(const Value& value) {
  struct Visitor {
    plist_t operator()(const Dictionary& d) const {
      plist_t node = plist_new_dict();
      for (const auto& [key, item] : d) plist_dict_set_item(node, key.c_str(), toNode(item));
      return node;
    }
    plist_t operator()(const Array& a) const {
      plist_t node = plist_new_array();
      for (const auto& item : a) plist_array_append_item(node, toNode(item));
      return node;
    }
    plist_t operator()(const std::string& s) const { return plist_new_string(s.c_str()); }
    plist_t operator()(std::int64_t i) const { return plist_new_uint(static_cast<uint64_t>(i)); }
    plist_t operator()(double r) const { return plist_new_real(r); }
    plist_t operator()(bool b) const { return plist_new_bool(b ? 1 : 0); }
    plist_t operator()(const Data& d) const {
      return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
    }
    plist_t operator()(const Date& d) const {
      // libplist keeps seconds in 32 bits: a date beyond that range is written at its edge.
      double whole = std::clamp(std::floor(d.sinceReferenceDate), -2147483648.0, 2147483647.0);
      if (!(whole == whole)) whole = 0;  // not a number
      return plist_new_date(
          static_cast<int32_t>(whole),
          static_cast<int32_t>(std::clamp(
              std::lround((d.sinceReferenceDate - std::floor(d.sinceReferenceDate)) * 1e6), 0L,
              999999L)));
    }
  };
  return std::visit(Visitor{}, value.content());
}

}  // namespace

std::optional<std::int64_t> Value::integer() const {
  if (auto* i = std::get_if<std::int64_t>(&content_)) return *i;
  return std::nullopt;
}

std::optional<double> Value::real() const {
  if (auto* r = std::get_if<double>(&content_)) return *r;
  return std::nullopt;
}

std::optional<bool> Value::boolean() const {
  if (auto* b = std::get_if<bool>(&content_)) return *b;
  return std::nullopt;
}

std::optional<Date> Value::date() const {
  if (auto* d = std::get_if<Date>(&content_)) return *d;
  return std::nullopt;
}

const Value* Value::find(const std::string& key) const {
  auto* d = dictionary();
  if (d == nullptr) return nullptr;
  auto it = d->find(key);
  return it == d->end() ? nullptr : &it->second;
}

std::optional<Value> parse(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > kMaxInputSize) return std::nullopt;
  bool binary = isBinary(bytes);
  if (binary ? !BinaryStructureCheck(bytes).run() : !xmlIsSafe(bytes)) return std::nullopt;

  plist_t root = nullptr;
  if (binary) {
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  } else {
    plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  }
  PlistHandle handle(root);
  if (root == nullptr) return std::nullopt;
  return convert(root, 0);
}

std::optional<Value> readFile(const std::string& path) {
  // Property lists found on a disk are small; a pipe or a huge file in their place is no plist.
  auto content = readRegularFile(path, kMaxFileBytes);
  if (!content.ok()) return std::nullopt;
  return parse(*content);
}

std::string serialize(const Value& value, Format format) {
  PlistHandle node(toNode(value));
  char* bytes = nullptr;
  uint32_t length = 0;
  if (format == Format::xml) {
    plist_to_xml(node.get(), &bytes, &length);
  } else {
    plist_to_bin(node.get(), &bytes, &length);
  }
  std::string out(bytes ? bytes : "", bytes ? length : 0);
  free(bytes);
  return out;
}

}  // namespace platform::plist
