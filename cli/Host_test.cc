#include "cli/Host.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

TEST(ParseSizeTest, PlainNumbersAndBinarySuffixes) {
  EXPECT_EQ(parseSize("0"), 0);
  EXPECT_EQ(parseSize("4096"), 4096);
  EXPECT_EQ(parseSize("10K"), 10 * 1024);
  EXPECT_EQ(parseSize("10k"), 10 * 1024);
  EXPECT_EQ(parseSize("10M"), 10 * 1024 * 1024);
  EXPECT_EQ(parseSize("10MiB"), 10 * 1024 * 1024);
  EXPECT_EQ(parseSize("1.5G"), 1536LL * 1024 * 1024);
  EXPECT_EQ(parseSize("2T"), 2LL << 40);
  EXPECT_EQ(parseSize("12B"), 12);
}

TEST(ParseSizeTest, DecimalSuffixesWithB) {
  EXPECT_EQ(parseSize("10MB"), 10'000'000);
  EXPECT_EQ(parseSize("1GB"), 1'000'000'000);
  EXPECT_EQ(parseSize("1kb"), 1000);
}

TEST(ParseSizeTest, RejectsWhatIsNotASize) {
  for (const char* bad : {"", "M", "-1", "1.2.3", "10X", "10 M", "10MBB", ".", "1e3", "99999E"}) {
    EXPECT_FALSE(parseSize(bad)) << bad;
  }
}

TEST(Utf8SafeTest, KeepsValidTextAndEscapesInvalidBytes) {
  EXPECT_EQ(utf8Safe("caf\xC3\xA9"), "caf\xC3\xA9");
  EXPECT_EQ(utf8Safe("a\xFF"
                     "b"),
            "a\\xFFb");
  EXPECT_EQ(utf8Safe("\xC3"), "\\xC3");  // truncated sequence
  EXPECT_EQ(utf8Safe(std::string("nul\0x", 5)), std::string("nul\0x", 5));
  // The result always serialises as JSON.
  EXPECT_NO_THROW(jsonText("bad\xFE\xFF").dump());
}

TEST(DisplayTextTest, ControlCharactersCantBreakALine) {
  EXPECT_EQ(displayText("a\nb\tc\x1b[2Jd\x7f"), "a\\nb\\tc\\x1B[2Jd\\x7F");
  EXPECT_EQ(displayText("bad\xff"), "bad\\xFF");
  EXPECT_EQ(displayText("caf\xC3\xA9"), "caf\xC3\xA9");
}

}  // namespace
}  // namespace cli
