#pragma once

// Property lists, binary or XML, read into a small value model. Input is untrusted: anything that
// isn't a well-formed property list gives nothing.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace platform::plist {

// A moment as property lists store it: seconds since 2001-01-01 00:00:00 UTC.
struct Date {
  double sinceReferenceDate = 0;
  double unixTime() const { return sinceReferenceDate + 978307200.0; }
  friend bool operator==(const Date&, const Date&) = default;
};

class Value;
using Dictionary = std::map<std::string, Value>;
using Array = std::vector<Value>;
using Data = std::vector<std::uint8_t>;

class Value {
 public:
  using Content =
      std::variant<Dictionary, Array, std::string, std::int64_t, double, bool, Data, Date>;

  Value() : content_(Dictionary{}) {}
  template <class T>
  Value(T value) : content_(std::move(value)) {}            // NOLINT: implicit by design
  Value(const char* text) : content_(std::string(text)) {}  // NOLINT: implicit by design
  Value(int number) : content_(std::int64_t{number}) {}     // NOLINT: implicit by design

  const Content& content() const { return content_; }

  const Dictionary* dictionary() const { return std::get_if<Dictionary>(&content_); }
  const Array* array() const { return std::get_if<Array>(&content_); }
  const std::string* string() const { return std::get_if<std::string>(&content_); }
  std::optional<std::int64_t> integer() const;
  std::optional<double> real() const;
  std::optional<bool> boolean() const;
  const Data* data() const { return std::get_if<Data>(&content_); }
  std::optional<Date> date() const;

  // The entry `key` of a dictionary; nullptr for a missing key or a value that isn't one.
  const Value* find(const std::string& key) const;

  friend bool operator==(const Value& a, const Value& b) { return a.content_ == b.content_; }

 private:
  Content content_;
};

// Parses a binary or XML property list. Nothing for malformed, truncated or too deeply nested
// input. Keyed-archive UIDs become integers.
std::optional<Value> parse(std::string_view bytes);

// The largest property list file `readFile` reads.
inline constexpr std::size_t kMaxFileBytes = 16 * 1024 * 1024;

// Reads and parses the file at `path`; nothing when it can't be read or parsed, isn't a regular
// file (it is never waited for) or is larger than `kMaxFileBytes`.
std::optional<Value> readFile(const std::string& path);

enum class Format { xml, binary };

// Writes `value` as a property list (used by tests and fixtures).
std::string serialize(const Value& value, Format format);

}  // namespace platform::plist
