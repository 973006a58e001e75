#include "Core/PublicSuffixList.h"

#include <gtest/gtest.h>

namespace Core {
namespace {

PublicSuffixList sample() {
  auto list = PublicSuffixList::load(
      "// comment line\n"
      "com\n"
      "\n"
      "uk\n"
      "co.uk\n"
      "blogspot.com\n"
      "*.t\n"
      "!keep.t\n"
      "deep.only.z\n");
  EXPECT_TRUE(list);
  return std::move(*list);
}

TEST(PublicSuffixListTest, TheLabelAfterTheSuffixIsTheOrganization) {
  auto list = sample();
  EXPECT_EQ(list.organization("com.example.tool"), "example");
  EXPECT_EQ(list.organization("uk.co.example.tool"), "example");
  EXPECT_EQ(list.organization("com..example..tool"), "example");  // empty pieces are dropped
  EXPECT_EQ(list.organization("com.blogspot.mine.app"), "mine");
}

TEST(PublicSuffixListTest, IdentifiersWithinASuffixOrUnlistedGiveNothing) {
  auto list = sample();
  EXPECT_FALSE(list.organization("com"));
  EXPECT_FALSE(list.organization("example"));
  EXPECT_FALSE(list.organization("uk.co"));
  EXPECT_FALSE(list.organization("org.example.tool"));
  EXPECT_FALSE(list.organization("COM.example.tool"));  // case counts
  // "z" exists only on the way to a longer rule: no falling back to a shorter one.
  EXPECT_FALSE(list.organization("z.other.app"));
}

TEST(PublicSuffixListTest, WildcardsAndTheirExceptions) {
  auto list = sample();
  EXPECT_EQ(list.organization("t.foo.bar"), "bar");
  EXPECT_EQ(list.organization("t.keep.bar"), "keep");
  EXPECT_FALSE(list.organization("t.foo"));
}

TEST(PublicSuffixListTest, ARuleWithoutLabelsIsADefect) {
  std::string error;
  EXPECT_FALSE(PublicSuffixList::load("com\n..\n", &error));
  EXPECT_NE(error.find("\"..\""), std::string::npos);
}

TEST(PublicSuffixListTest, TheBuiltInListLoads) {
  const PublicSuffixList* list = PublicSuffixList::shared();
  ASSERT_NE(list, nullptr) << PublicSuffixList::sharedLoadError();
  EXPECT_EQ(list->organization("com.google.Chrome"), "google");
  EXPECT_EQ(list->organization("uk.co.bbc.iplayer"), "bbc");
  EXPECT_EQ(list->organization("org.mozilla.firefox"), "mozilla");
  EXPECT_FALSE(list->organization("localhost.app"));
}

}  // namespace
}  // namespace Core
