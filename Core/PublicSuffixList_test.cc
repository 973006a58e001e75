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

// The label after the longest listed suffix is the organization; an identifier within a suffix,
// under none, or spelt in another case gives none; wildcards take one label, their exceptions
// none.
TEST(PublicSuffixListTest, TheLabelAfterTheSuffixIsTheOrganization) {
  auto list = sample();
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {"com.example.tool", "example"},
      {"uk.co.example.tool", "example"},
      {"com..example..tool", "example"},  // empty pieces are dropped
      {"com.blogspot.mine.app", "mine"},
      {"t.foo.bar", "bar"},
      {"t.keep.bar", "keep"},
      {"com", std::nullopt},
      {"example", std::nullopt},
      {"uk.co", std::nullopt},
      {"org.example.tool", std::nullopt},
      {"COM.example.tool", std::nullopt},
      {"t.foo", std::nullopt},
      // "z" exists only on the way to a longer rule: no falling back to a shorter one.
      {"z.other.app", std::nullopt},
  };
  for (const auto& [identifier, organization] : rows) {
    EXPECT_EQ(list.organization(identifier), organization) << identifier;
  }
}

// The built-in list loads; a rule without labels is a defect.
TEST(PublicSuffixListTest, TheBuiltInListLoadsAndARuleWithoutLabelsIsADefect) {
  std::string error;
  EXPECT_FALSE(PublicSuffixList::load("com\n..\n", &error));
  EXPECT_NE(error.find("\"..\""), std::string::npos);
  const PublicSuffixList* list = PublicSuffixList::shared();
  ASSERT_NE(list, nullptr) << PublicSuffixList::sharedLoadError();
  EXPECT_EQ(list->organization("com.google.Chrome"), "google");
  EXPECT_EQ(list->organization("uk.co.bbc.iplayer"), "bbc");
  EXPECT_EQ(list->organization("org.mozilla.firefox"), "mozilla");
  EXPECT_FALSE(list->organization("localhost.app"));
}

}  // namespace
}  // namespace Core
