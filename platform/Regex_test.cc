#include "platform/Regex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <unordered_set>

namespace platform {
namespace {

TEST(RegexTest, PatternsThatDoNotCompileGiveNothing) {
  EXPECT_FALSE(Regex::compile("("));
  EXPECT_FALSE(Regex::compile("[a-"));
  EXPECT_FALSE(Regex::compile("(?<1bad>x)"));
  EXPECT_TRUE(Regex::compile(""));
}

TEST(RegexTest, CaseInsensitiveOnlyWhenAsked) {
  auto exact = Regex::compile("com\\.Google\\..*");
  auto loose = Regex::compile("com\\.Google\\..*", true);
  ASSERT_TRUE(exact && loose);
  EXPECT_FALSE(exact->matches("COM.GOOGLE.Chrome"));
  EXPECT_TRUE(loose->matches("COM.GOOGLE.Chrome"));
  EXPECT_TRUE(loose->matches("Ünïcode then com.google.x"));
}

TEST(RegexTest, FirstMatchSearchesTheWholeTextAndHonoursAnchors) {
  auto anywhere = Regex::compile("cache");
  auto anchored = Regex::compile("^cache$");
  ASSERT_TRUE(anywhere && anchored);
  auto m = anywhere->firstMatch("my-cache-cache");
  ASSERT_TRUE(m);
  EXPECT_EQ(m->range(0)->location, 3u);
  EXPECT_EQ(m->group(0), "cache");
  EXPECT_FALSE(anchored->matches("my-cache"));
  EXPECT_TRUE(anchored->matches("cache"));
}

TEST(RegexTest, OffsetsAreUtf8Bytes) {
  auto regex = Regex::compile("(b+)");
  ASSERT_TRUE(regex);
  auto m = regex->firstMatch(
      "\xC3\xA9\xC3\xA9"
      "bb");  // "éé" is four bytes
  ASSERT_TRUE(m);
  EXPECT_EQ(m->range(1)->location, 4u);
  EXPECT_EQ(m->group(1), "bb");
}

TEST(RegexTest, NamedGroupsPresentAbsentAndEmpty) {
  auto regex = Regex::compile("^(?<id>[a-z.]+)(?<version>-[0-9]+)?(?<tail>x*)$");
  ASSERT_TRUE(regex);
  EXPECT_EQ(regex->groupCount(), 3u);
  EXPECT_EQ(regex->groupNumber("id"), 1u);
  EXPECT_EQ(regex->groupNumber("tail"), 3u);
  EXPECT_FALSE(regex->groupNumber("missing"));

  auto m = regex->firstMatch("org.example");
  ASSERT_TRUE(m);
  EXPECT_EQ(m->group("id"), "org.example");
  EXPECT_FALSE(m->group("version"));       // didn't take part
  EXPECT_EQ(m->group("tail"), "");         // took part, matched nothing
  EXPECT_FALSE(m->group("missing"));       // no such group
  EXPECT_FALSE(m->group(std::size_t{9}));  // no such number

  auto full = regex->firstMatch("org.example-12xx");
  ASSERT_TRUE(full);
  EXPECT_EQ(full->group("version"), "-12");
  EXPECT_EQ(full->group("tail"), "xx");
}

TEST(RegexTest, InvalidUtf8TextDoesNotBreakMatching) {
  auto regex = Regex::compile("\\.log$");
  ASSERT_TRUE(regex);
  EXPECT_TRUE(regex->matches("bad\xff\xfe.log"));
  EXPECT_FALSE(regex->matches("bad\xff\xfe.txt"));
}

TEST(RegexTest, EqualityAndHashFollowPatternAndOptions) {
  auto a = Regex::compile("a+");
  auto b = Regex::compile("a+");
  auto c = Regex::compile("a+", true);
  ASSERT_TRUE(a && b && c);
  EXPECT_EQ(*a, *b);
  EXPECT_EQ(a->hash(), b->hash());
  EXPECT_FALSE(*a == *c);
}

// A document's expression that backtracks catastrophically must not hold a scan: it is given up
// and counts as no match, while an ordinary match is unaffected.
TEST(RegexTest, RunawayMatchesAreGivenUpAsNoMatch) {
  auto runaway = Regex::compile("^(a+)+$", true);
  ASSERT_TRUE(runaway);
  std::string text = std::string(28, 'a') + "b";
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(runaway->matches(text));
  EXPECT_FALSE(runaway->firstMatch(text));
  // Without the limit this match takes seconds; with it, well under one.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_TRUE(runaway->matches(std::string(28, 'a')));
}

}  // namespace
}  // namespace platform
