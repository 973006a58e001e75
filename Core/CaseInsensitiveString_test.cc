#include "Core/CaseInsensitiveString.h"

#include <gtest/gtest.h>

#include <map>
#include <unordered_set>

namespace Core {
namespace {

TEST(CaseInsensitiveStringTest, EqualityOrderAndHashIgnoreCase) {
  CaseInsensitiveString a("Com.Apple.Safari");
  CaseInsensitiveString b("com.apple.safari");
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::hash<CaseInsensitiveString>()(a), std::hash<CaseInsensitiveString>()(b));
  EXPECT_EQ(a.origin(), "Com.Apple.Safari");
  EXPECT_LT(CaseInsensitiveString("apple"), CaseInsensitiveString("Banana"));
  EXPECT_GT(CaseInsensitiveString("Zebra"), CaseInsensitiveString("apple"));
  EXPECT_EQ(CaseInsensitiveString("\xC3\x89T\xC3\x89 Log").lowercaseString(),
            "\xC3\xA9t\xC3\xA9 log");
  EXPECT_FALSE(CaseInsensitiveString::from(std::nullopt));

  // Bytes that aren't UTF-8 stay distinct, even a lone continuation byte in valid text.
  CaseInsensitiveString bad("name\xff"), other("name\xfe"), upper("NAME\xff");
  EXPECT_NE(bad, other);
  EXPECT_EQ(bad, upper);
  std::map<CaseInsensitiveString, int> keys = {{bad, 1}, {other, 2}};
  EXPECT_EQ(keys.size(), 2u);
  EXPECT_NE(CaseInsensitiveString("\xC3\xA9\x80"), CaseInsensitiveString("\xC3\xA9"));
}

TEST(CaseInsensitiveStringTest, UnicodeFoldingKeepsHashConsistentWithEquality) {
  // Lower-casing alone would tell these apart while folding says they are equal.
  std::vector<std::pair<std::string, std::string>> same = {
      {"STRASSE",
       "stra\xC3\x9F"
       "e"},                                                     // ß
      {"\xCE\xA3\xCE\x91\xCE\xA3", "\xCF\x83\xCE\xB1\xCF\x82"},  // ΣΑΣ, σας
      {"\xC3\x89t\xC3\xA9", "\xC3\xA9T\xC3\x89"},                // Été, éTÉ
  };
  for (const auto& [x, y] : same) {
    CaseInsensitiveString a(x), b(y);
    EXPECT_EQ(a, b) << x << " / " << y;
    EXPECT_EQ(std::hash<CaseInsensitiveString>()(a), std::hash<CaseInsensitiveString>()(b));
  }
  std::unordered_set<CaseInsensitiveString> set = {"STRASSE"};
  EXPECT_TRUE(
      set.count(CaseInsensitiveString("stra\xC3\x9F"
                                      "e")));
}

}  // namespace
}  // namespace Core
