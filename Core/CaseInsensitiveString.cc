#include "Core/CaseInsensitiveString.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <vector>

namespace Core {

namespace {

using Mapper = int32_t (*)(UChar*, int32_t, const UChar*, int32_t, UErrorCode*);

int32_t foldMapper(UChar* dest, int32_t capacity, const UChar* src, int32_t length,
                   UErrorCode* status) {
  return u_strFoldCase(dest, capacity, src, length, U_FOLD_CASE_DEFAULT, status);
}

int32_t lowerMapper(UChar* dest, int32_t capacity, const UChar* src, int32_t length,
                    UErrorCode* status) {
  return u_strToLower(dest, capacity, src, length, "", status);
}

// Maps one run of valid UTF-8 through an ICU case mapping.
void mapValidRun(std::string_view run, Mapper mapper, std::string& out) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  std::vector<UChar> utf16(run.size() + 1);
  u_strFromUTF8(utf16.data(), static_cast<int32_t>(utf16.size()), &length, run.data(),
                static_cast<int32_t>(run.size()), &status);
  if (U_FAILURE(status)) {
    out.append(run);
    return;
  }
  // Case mappings can grow the text (ß folds to ss); three times is the Unicode bound.
  std::vector<UChar> mapped(static_cast<std::size_t>(length) * 3 + 1);
  status = U_ZERO_ERROR;
  int32_t mappedLength =
      mapper(mapped.data(), static_cast<int32_t>(mapped.size()), utf16.data(), length, &status);
  if (U_FAILURE(status)) {
    out.append(run);
    return;
  }
  std::string utf8(static_cast<std::size_t>(mappedLength) * 3 + 1, '\0');
  int32_t utf8Length = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(utf8.data(), static_cast<int32_t>(utf8.size()), &utf8Length, mapped.data(),
              mappedLength, &status);
  if (U_FAILURE(status)) {
    out.append(run);
    return;
  }
  out.append(utf8.data(), static_cast<std::size_t>(utf8Length));
}

std::string mapCase(std::string_view text, Mapper mapper) {
  std::string out;
  out.reserve(text.size());
  // ASCII is by far the most common case and needs no conversion.
  std::size_t i = 0;
  while (i < text.size()) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      out.push_back(static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c));
      ++i;
      continue;
    }
    // Find the run of non-ASCII text, split at invalid sequences.
    std::size_t start = i;
    int32_t pos = static_cast<int32_t>(i);
    const int32_t size = static_cast<int32_t>(text.size());
    bool invalid = false;
    while (pos < size && static_cast<unsigned char>(text[static_cast<std::size_t>(pos)]) >= 0x80) {
      int32_t before = pos;
      UChar32 cp;
      U8_NEXT(reinterpret_cast<const uint8_t*>(text.data()), pos, size, cp);
      if (cp < 0) {
        pos = before;
        invalid = true;
        break;
      }
    }
    if (static_cast<std::size_t>(pos) > start) {
      mapValidRun(text.substr(start, static_cast<std::size_t>(pos) - start), mapper, out);
    }
    i = static_cast<std::size_t>(pos);
    if (invalid) {
      // Keep the offending byte as it is; it can't appear in valid UTF-8 output, so it can't be
      // confused with anything a mapping produced.
      out.push_back(text[i]);
      ++i;
    }
  }
  return out;
}

}  // namespace

std::string foldCase(std::string_view text) { return mapCase(text, foldMapper); }

std::string lowercased(std::string_view text) { return mapCase(text, lowerMapper); }

CaseInsensitiveString::CaseInsensitiveString(std::string origin)
    : origin_(std::move(origin)), folded_(foldCase(origin_)) {}

CaseInsensitiveString::CaseInsensitiveString(const char* origin)
    : CaseInsensitiveString(std::string(origin ? origin : "")) {}

CaseInsensitiveString::CaseInsensitiveString(std::string_view origin)
    : CaseInsensitiveString(std::string(origin)) {}

std::optional<CaseInsensitiveString> CaseInsensitiveString::from(
    const std::optional<std::string>& origin) {
  if (!origin) return std::nullopt;
  return CaseInsensitiveString(*origin);
}

std::string CaseInsensitiveString::lowercaseString() const { return lowercased(origin_); }

}  // namespace Core
