#include "platform/Regex.h"

#include <gtest/gtest.h>

#include <chrono>

namespace platform {
namespace {

// What matches what: a pattern that doesn't compile gives nothing; case is ignored only when
// asked; text that isn't valid UTF-8 still matches; anchors are honoured.
TEST(RegexTest, WhatMatchesWhat) {
  for (const char* bad : {"(", "[a-", "(?<1bad>x)"}) EXPECT_FALSE(Regex::compile(bad)) << bad;
  struct Row {
    const char* pattern;
    bool ignoreCase;
    const char* text;
    bool matches;
  };
  for (const Row& row :
       std::initializer_list<Row>{{"", false, "anything", true},
                                  {"com\\.Google\\..*", false, "COM.GOOGLE.Chrome", false},
                                  {"com\\.Google\\..*", true, "COM.GOOGLE.Chrome", true},
                                  {"com\\.Google\\..*", true, "\xC3\x9Cn then com.google.x", true},
                                  {"\\.log$", false, "bad\xff\xfe.log", true},
                                  {"\\.log$", false, "bad\xff\xfe.txt", false},
                                  {"^cache$", false, "my-cache", false},
                                  {"^cache$", false, "cache", true}}) {
    auto regex = Regex::compile(row.pattern, row.ignoreCase);
    ASSERT_TRUE(regex) << row.pattern;
    EXPECT_EQ(regex->matches(row.text), row.matches) << row.pattern << " " << row.text;
  }
  auto a = Regex::compile("a+"), b = Regex::compile("a+"), c = Regex::compile("a+", true);
  EXPECT_TRUE(*a == *b && a->hash() == b->hash());
  EXPECT_FALSE(*a == *c);
}

// The first match anywhere in the text, its offsets in bytes of UTF-8 ("éé" is four).
TEST(RegexTest, FirstMatchSearchesTheWholeTextInUtf8Bytes) {
  auto regex = Regex::compile("(cache)");
  ASSERT_TRUE(regex);
  auto m = regex->firstMatch("\xC3\xA9\xC3\xA9-cache-cache");
  ASSERT_TRUE(m);
  EXPECT_EQ(m->range(1)->location, 5u);
  EXPECT_EQ(m->group(0), "cache");
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
