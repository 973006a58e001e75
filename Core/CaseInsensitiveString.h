#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Core {

// Text compared without regard to case: the type of every application identifier, bundle name
// and directory-entry key. `origin` is kept verbatim for display; comparison, order and hashing
// all use the Unicode case folding of `origin`, so that values that compare equal always hash
// alike ("STRASSE" and "straße", "ΣΑΣ" and "σας"). Bytes that aren't valid UTF-8 are kept as
// they are and compare exactly, so no two different file names collapse into one key.
class CaseInsensitiveString {
 public:
  CaseInsensitiveString() = default;
  CaseInsensitiveString(std::string origin);       // NOLINT: implicit by design
  CaseInsensitiveString(const char* origin);       // NOLINT: implicit by design
  CaseInsensitiveString(std::string_view origin);  // NOLINT: implicit by design
  // Nothing gives nothing.
  static std::optional<CaseInsensitiveString> from(const std::optional<std::string>& origin);

  const std::string& origin() const { return origin_; }
  const std::string& description() const { return origin_; }
  // `origin` in lower case (full Unicode lower-casing).
  std::string lowercaseString() const;
  // The folded form that comparison and hashing use.
  const std::string& folded() const { return folded_; }

  friend bool operator==(const CaseInsensitiveString& a, const CaseInsensitiveString& b) {
    return a.folded_ == b.folded_;
  }
  friend std::strong_ordering operator<=>(const CaseInsensitiveString& a,
                                          const CaseInsensitiveString& b) {
    return a.folded_ <=> b.folded_;
  }

 private:
  std::string origin_;
  std::string folded_;
};

// Unicode case folding of UTF-8 text; invalid bytes pass through unchanged.
std::string foldCase(std::string_view text);
// Unicode lower-casing of UTF-8 text; invalid bytes pass through unchanged.
std::string lowercased(std::string_view text);

}  // namespace Core

template <>
struct std::hash<Core::CaseInsensitiveString> {
  std::size_t operator()(const Core::CaseInsensitiveString& s) const noexcept {
    return std::hash<std::string>()(s.folded());
  }
};
