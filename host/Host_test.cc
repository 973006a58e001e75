#include "host/Host.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "host/Deletion.h"
#include "testsupport/TestSupport.h"

namespace host {
namespace {

// Binary suffixes alone or with "iB", decimal ones with "B"; anything else is no size.
TEST(ParseSizeTest, SizesWithTheirSuffixesAndWhatIsNone) {
  const std::pair<const char*, std::int64_t> sizes[] = {
      {"0", 0},          {"4096", 4096},       {"10K", 10 << 10},      {"10k", 10 << 10},
      {"10M", 10 << 20}, {"10MiB", 10 << 20},  {"1.5G", 1536LL << 20}, {"2T", 2LL << 40},
      {"12B", 12},       {"10MB", 10'000'000}, {"1GB", 1'000'000'000}, {"1kb", 1000}};
  for (const auto& [text, size] : sizes) EXPECT_EQ(parseSize(text), size) << text;
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
  EXPECT_EQ(displayText("a\nb\tc\x1b[2Jd\x7f\xff"), "a\\nb\\tc\\x1B[2Jd\\x7F\\xFF");
  EXPECT_EQ(displayText("caf\xC3\xA9"), "caf\xC3\xA9");
}

// Paths printed by one command are read back by another: every byte value, and names that
// spell an escape themselves, must come back as they were and never collide.
TEST(EscapedTextTest, EveryByteRoundTripsAndLiteralEscapesStayApart) {
  for (int byte = 0; byte < 256; ++byte) {
    std::string name = std::string("a") + static_cast<char>(byte) + "b";
    ASSERT_EQ(unescapeText(utf8Safe(name)), name) << byte;
    ASSERT_EQ(unescapeText(displayText(name)), name) << byte;
  }
  for (const std::string name : {"a\\xFF", "b\\n", "\\", "c\\\\xFF", "caf\xC3\xA9\xC3"}) {
    EXPECT_EQ(unescapeText(utf8Safe(name)), name);
    EXPECT_EQ(unescapeText(displayText(name)), name);
  }
  EXPECT_NE(utf8Safe("a\\xFF"), utf8Safe("a\xFF"));
  EXPECT_NE(displayText("b\\n"), displayText("b\n"));
  for (const char* bad : {"\\", "\\q", "\\x4", "\\xZZ", "\\xff"}) {
    EXPECT_FALSE(unescapeText(bad)) << bad;
  }
}

// A status line is drawn on terminals of any width, never wider than the terminal.
TEST(StatusLineTest, FitsAnyWidth) {
  const std::string path = "/home/user/a/rather/long/path/to/some/file/caf\xC3\xA9.txt";
  for (std::size_t width = 1; width < 100; ++width) {
    std::string line = StatusLine::fitted(path, width);
    std::size_t characters = 0;
    for (char c : line) characters += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    EXPECT_LE(characters, width - 1) << width;
  }
  EXPECT_EQ(StatusLine::fitted(path, 1), "");
  EXPECT_EQ(StatusLine::fitted("short", 0), "short");  // unknown width
  EXPECT_EQ(StatusLine::fitted(path, 12), "...caf\xC3\xA9.txt");
  EXPECT_EQ(StatusLine::fitted(path, 3), "xt");
}

// A duplicate goes only while it and its kept copy hold the same bytes at the moment of deletion.
TEST(SameBytesGuardTest, AMemberGoesOnlyWhileItMatchesTheKeptCopy) {
  struct Row {
    const char* what;
    std::function<void(testsupport::TempDir&)> meanwhile;
    bool deleted;
  };
  for (const Row& row : std::initializer_list<Row>{
           {"unchanged", [](testsupport::TempDir&) {}, true},
           {"member changed", [](testsupport::TempDir& t) { t.write("copy", "other bytes"); },
            false},
           {"kept changed", [](testsupport::TempDir& t) { t.write("kept", "other bytes"); }, false},
           {"kept gone", [](testsupport::TempDir& t) { std::filesystem::remove(t / "kept"); },
            false},
           {"kept now a link",
            [](testsupport::TempDir& t) {
              t.write("elsewhere", "same bytes");
              std::filesystem::remove(t / "kept");
              t.symlink("kept", t / "elsewhere");
            },
            false}}) {
    testsupport::TempDir tmp;
    tmp.write("kept", "same bytes");
    tmp.write("copy", "same bytes");
    platform::TreeDeletionOptions options;
    options.guard = sameBytesGuard({{tmp / "copy", tmp / "kept"}});
    row.meanwhile(tmp);
    platform::TreeDeletion outcome = platform::deleteTree(tmp / "copy", options);
    EXPECT_EQ(outcome.error == 0, row.deleted) << row.what;
    EXPECT_EQ(std::filesystem::exists(tmp / "copy"), !row.deleted) << row.what;
  }
}

}  // namespace
}  // namespace host
