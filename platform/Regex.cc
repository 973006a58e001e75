#include "platform/Regex.h"

#include <unicode/regex.h>
#include <unicode/utext.h>

#include <functional>

namespace platform {

namespace {

// Owns a UText opened over UTF-8 bytes and closes it on every way out.
class Utf8Text {
 public:
  explicit Utf8Text(std::string_view bytes) {
    text_ = utext_openUTF8(nullptr, bytes.data(), static_cast<int64_t>(bytes.size()), &status_);
  }
  ~Utf8Text() {
    if (text_ != nullptr) utext_close(text_);
  }
  Utf8Text(const Utf8Text&) = delete;
  Utf8Text& operator=(const Utf8Text&) = delete;
  UText* get() const { return U_SUCCESS(status_) ? text_ : nullptr; }

 private:
  UErrorCode status_ = U_ZERO_ERROR;
  UText* text_ = nullptr;
};

std::optional<std::size_t> groupNumberIn(const icu::RegexPattern& pattern, std::string_view name) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t number =
      pattern.groupNumberFromName(name.data(), static_cast<int32_t>(name.size()), status);
  if (U_FAILURE(status) || number < 0) return std::nullopt;
  return static_cast<std::size_t>(number);
}

}  // namespace

std::optional<RegexMatch::Range> RegexMatch::range(std::size_t number) const {
  return number < ranges_.size() ? ranges_[number] : std::nullopt;
}

std::optional<std::string> RegexMatch::group(std::size_t number) const {
  auto r = range(number);
  if (!r) return std::nullopt;
  return text_.substr(r->location, r->length);
}

std::optional<std::string> RegexMatch::group(std::string_view name) const {
  if (!pattern_) return std::nullopt;
  auto number = groupNumberIn(*pattern_, name);
  if (!number) return std::nullopt;
  return group(*number);
}

namespace {

// A match that runs away (a nested quantifier over a long text) is given up after about this
// many steps of ICU's engine, on the order of milliseconds each, and counts as no match: an
// expression read from a document must not hold a scan for seconds.
constexpr int32_t kMatchTimeLimit = 100;

std::unique_ptr<icu::RegexMatcher> limitedMatcher(const icu::RegexPattern& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(pattern.matcher(status));
  if (U_FAILURE(status) || !matcher) return nullptr;
  matcher->setTimeLimit(kMatchTimeLimit, status);
  return U_SUCCESS(status) ? std::move(matcher) : nullptr;
}

}  // namespace

std::optional<Regex> Regex::compile(std::string_view pattern, bool caseInsensitive) {
  Utf8Text source(pattern);
  if (source.get() == nullptr) return std::nullopt;
  UParseError parseError;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexPattern> compiled(icu::RegexPattern::compile(
      source.get(), caseInsensitive ? UREGEX_CASE_INSENSITIVE : 0, parseError, status));
  if (U_FAILURE(status) || !compiled) return std::nullopt;
  Regex regex;
  regex.pattern_ = std::move(compiled);
  regex.source_ = std::string(pattern);
  regex.caseInsensitive_ = caseInsensitive;
  return regex;
}

std::optional<RegexMatch> Regex::firstMatch(std::string_view text) const {
  Utf8Text input(text);
  if (input.get() == nullptr) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher = limitedMatcher(*pattern_);
  if (!matcher) return std::nullopt;
  matcher->reset(input.get());
  if (!matcher->find(status) || U_FAILURE(status)) return std::nullopt;  // U_REGEX_TIME_OUT too

  RegexMatch match;
  match.pattern_ = pattern_;
  match.text_ = std::string(text);
  int32_t groups = matcher->groupCount();
  match.ranges_.resize(static_cast<std::size_t>(groups) + 1);
  for (int32_t i = 0; i <= groups; ++i) {
    int64_t start = matcher->start64(i, status);
    int64_t end = matcher->end64(i, status);
    if (U_FAILURE(status)) return std::nullopt;
    if (start < 0 || end < start) continue;  // group didn't take part
    match.ranges_[static_cast<std::size_t>(i)] =
        RegexMatch::Range{static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)};
  }
  return match;
}

bool Regex::matches(std::string_view text) const {
  Utf8Text input(text);
  if (input.get() == nullptr) return false;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher = limitedMatcher(*pattern_);
  if (!matcher) return false;
  matcher->reset(input.get());
  return matcher->find(status) && U_SUCCESS(status);
}

std::size_t Regex::groupCount() const {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(pattern_->matcher(status));
  return U_SUCCESS(status) && matcher ? static_cast<std::size_t>(matcher->groupCount()) : 0;
}

std::optional<std::size_t> Regex::groupNumber(std::string_view name) const {
  return groupNumberIn(*pattern_, name);
}

std::size_t Regex::hash() const {
  return std::hash<std::string>()(source_) * 31 + (caseInsensitive_ ? 1 : 0);
}

}  // namespace platform
