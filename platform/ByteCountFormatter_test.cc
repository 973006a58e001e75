#include "platform/ByteCountFormatter.h"

#include <gtest/gtest.h>

#include <limits>

namespace platform {
namespace {

// Bytes below a kilobyte by name; rounding into the next unit at its boundary; fraction digits
// growing with the unit, without trailing zeros; the extremes and negatives.
TEST(ByteCountFormatterTest, EveryRangeAndBoundary) {
  const std::pair<std::int64_t, const char*> rows[] = {
      {0, "Zero KB"},
      {1, "1 byte"},
      {12, "12 bytes"},
      {999, "999 bytes"},
      {1000, "1 KB"},
      {1499, "1 KB"},
      {1500, "2 KB"},
      {999'499, "999 KB"},
      {999'500, "1 MB"},
      {1'540'000, "1.5 MB"},
      {999'949'999, "999.9 MB"},
      {999'950'000, "1 GB"},
      {1'230'000'000, "1.23 GB"},
      {1'200'000'000, "1.2 GB"},
      {999'995'000'000, "1 TB"},
      {4'567'000'000'000, "4.57 TB"},
      {std::numeric_limits<std::int64_t>::max(), "9.22 EB"},
      {std::numeric_limits<std::int64_t>::min(), "-9.22 EB"},
      {-1, "-1 byte"},
      {-1'500'000, "-1.5 MB"},
  };
  for (const auto& [bytes, text] : rows) EXPECT_EQ(formatByteCount(bytes), text) << bytes;
}

}  // namespace
}  // namespace platform
