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

}  // namespace platform
