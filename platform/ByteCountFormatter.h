#pragma once

#include <cstdint>
#include <string>

namespace platform {

// Renders a byte count the way the platform's file-style formatter does with default settings:
// decimal units (1 KB = 1000 bytes), whole numbers for bytes and KB, one fraction digit for MB,
// two for GB and above, no trailing zeros ("Zero KB", "1 byte", "12 bytes", "1.5 MB", "1.23 GB").
std::string formatByteCount(std::int64_t bytes);

}  // namespace platform
