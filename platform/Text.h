#pragma once

// Reversible text for bytes that may not be UTF-8 (file names are any bytes but "/" and NUL):
// valid UTF-8 stays as it is, a backslash becomes two, and each byte that isn't part of valid
// UTF-8 becomes "\xNN" (two capital hexadecimal digits). The result is valid UTF-8, so it can
// travel in JSON, and `unescapedText` gives the bytes back.

#include <optional>
#include <string>
#include <string_view>

namespace platform {

std::string escapedText(std::string_view bytes);

// The bytes that `escapedText` wrote as `text`. Also reads "\n" and "\t", which display forms of
// the same text add. Nothing for an escape that neither writes.
std::optional<std::string> unescapedText(std::string_view text);

// Calls `visit` with each line of `text` (a std::string_view), without its "\n"; the last line
// too when no "\n" ends it.
template <class Visit>
void forEachLine(std::string_view text, Visit&& visit) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    visit(text.substr(start, end - start));
    start = end + 1;
  }
}

}  // namespace platform
