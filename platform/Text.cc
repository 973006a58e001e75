#include "platform/Text.h"

#include <unicode/utf8.h>

#include <cstdint>

namespace platform {

namespace {

constexpr char kHex[] = "0123456789ABCDEF";

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string escapedText(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  const int32_t size = static_cast<int32_t>(bytes.size());
  int32_t i = 0;
  while (i < size) {
    int32_t start = i;
    UChar32 c;
    U8_NEXT(data, i, size, c);
    if (c < 0) {
      out += "\\x";
      out += kHex[data[start] >> 4];
      out += kHex[data[start] & 0xF];
      i = start + 1;
    } else if (c == '\\') {
      out += "\\\\";
    } else {
      out.append(
          bytes.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
    }
  }
  return out;
}

std::optional<std::string> unescapedText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out.push_back(text[i]);
      continue;
    }
    if (++i == text.size()) return std::nullopt;
    switch (text[i]) {
      case '\\':
        out.push_back('\\');
        break;
      case 'n':
        out.push_back('\n');
        break;
      case 't':
        out.push_back('\t');
        break;
      case 'x': {
        int high = i + 1 < text.size() ? hexValue(text[i + 1]) : -1;
        int low = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        break;
      }
      default:
        return std::nullopt;
    }
  }
  return out;
}

}  // namespace platform
