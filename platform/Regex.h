#pragma once

#include <unicode/uversion.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

U_NAMESPACE_BEGIN
class RegexPattern;
U_NAMESPACE_END

namespace platform {

class Regex;

// One match of a `Regex`: the whole match is group 0. Offsets are byte offsets into the UTF-8
// text that was searched.
class RegexMatch {
 public:
  struct Range {
    std::size_t location = 0;
    std::size_t length = 0;
  };

  // The range of group `number`; nothing when the group didn't take part in the match or the
  // pattern has no such group.
  std::optional<Range> range(std::size_t number) const;
  // The text of group `number`, under the same rules.
  std::optional<std::string> group(std::size_t number) const;
  // The text of the group called `name`; nothing when the pattern has no group of that name or
  // the group didn't take part. A group that matched nothing gives "".
  std::optional<std::string> group(std::string_view name) const;
  std::size_t groupCount() const { return ranges_.empty() ? 0 : ranges_.size() - 1; }

 private:
  friend class Regex;
  std::shared_ptr<const icu::RegexPattern> pattern_;
  std::string text_;
  std::vector<std::optional<Range>> ranges_;
};

// A compiled ICU regular expression over UTF-8 text. Immutable once made; safe to share between
// threads. Two values are equal when their patterns and options are.
class Regex {
 public:
  // Compiles `pattern`; nothing when it doesn't compile.
  static std::optional<Regex> compile(std::string_view pattern, bool caseInsensitive = false);

  const std::string& pattern() const { return source_; }
  bool caseInsensitive() const { return caseInsensitive_; }

  // The first match anywhere in `text`. A match that takes too long (catastrophic backtracking)
  // is given up within tens of milliseconds and counts as no match.
  std::optional<RegexMatch> firstMatch(std::string_view text) const;
  bool matches(std::string_view text) const;

  // Number of capture groups of the pattern.
  std::size_t groupCount() const;
  // The number of the group called `name`, as the regular expression engine knows it.
  std::optional<std::size_t> groupNumber(std::string_view name) const;

  std::size_t hash() const;
  friend bool operator==(const Regex& a, const Regex& b) {
    return a.caseInsensitive_ == b.caseInsensitive_ && a.source_ == b.source_;
  }

 private:
  Regex() = default;
  std::shared_ptr<const icu::RegexPattern> pattern_;
  std::string source_;
  bool caseInsensitive_ = false;
};

}  // namespace platform
