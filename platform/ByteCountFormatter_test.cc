#include "platform/ByteCountFormatter.h"

#include <gtest/gtest.h>

#include <limits>

namespace platform {
namespace {

TEST(ByteCountFormatterTest, BytesBelowOneKilobyte) {
  EXPECT_EQ(formatByteCount(0), "Zero KB");
  EXPECT_EQ(formatByteCount(1), "1 byte");
  EXPECT_EQ(formatByteCount(12), "12 bytes");
  EXPECT_EQ(formatByteCount(999), "999 bytes");
}

TEST(ByteCountFormatterTest, UnitBoundariesRoundIntoTheNextUnit) {
  EXPECT_EQ(formatByteCount(1000), "1 KB");
  EXPECT_EQ(formatByteCount(1499), "1 KB");
  EXPECT_EQ(formatByteCount(1500), "2 KB");
  EXPECT_EQ(formatByteCount(999'499), "999 KB");
  EXPECT_EQ(formatByteCount(999'500), "1 MB");
  EXPECT_EQ(formatByteCount(999'949'999), "999.9 MB");
  EXPECT_EQ(formatByteCount(999'950'000), "1 GB");
  EXPECT_EQ(formatByteCount(999'995'000'000), "1 TB");
}

TEST(ByteCountFormatterTest, FractionDigitsGrowWithTheUnitWithoutTrailingZeros) {
  EXPECT_EQ(formatByteCount(1'000'000), "1 MB");
  EXPECT_EQ(formatByteCount(1'500'000), "1.5 MB");
  EXPECT_EQ(formatByteCount(1'540'000), "1.5 MB");
  EXPECT_EQ(formatByteCount(1'230'000'000), "1.23 GB");
  EXPECT_EQ(formatByteCount(1'200'000'000), "1.2 GB");
  EXPECT_EQ(formatByteCount(1'000'000'000), "1 GB");
  EXPECT_EQ(formatByteCount(4'567'000'000'000), "4.57 TB");
}

TEST(ByteCountFormatterTest, ExtremesAndNegatives) {
  EXPECT_EQ(formatByteCount(std::numeric_limits<std::int64_t>::max()), "9.22 EB");
  EXPECT_EQ(formatByteCount(std::numeric_limits<std::int64_t>::min()), "-9.22 EB");
  EXPECT_EQ(formatByteCount(-1), "-1 byte");
  EXPECT_EQ(formatByteCount(-1'500'000), "-1.5 MB");
}

}  // namespace
}  // namespace platform
