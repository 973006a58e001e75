#include "Core/App.h"

#include <gtest/gtest.h>

namespace Core {
namespace {

TEST(AppFileTest, KindsComeFromExactText) {
  EXPECT_EQ(AppFile::kindFromText("cache"), AppFile::Kind(AppFile::Cache{}));
  EXPECT_EQ(AppFile::kindFromText("cookie"), AppFile::Kind(AppFile::Cookie{}));
  // Comparison is exact: other spellings are kinds of their own.
  EXPECT_EQ(AppFile::kindFromText("Cache"), AppFile::Kind(AppFile::Other{"Cache"}));
  EXPECT_EQ(AppFile::kindFromText("crash"), AppFile::Kind(AppFile::Other{"crash"}));
  for (const char* text : {"log", "cache", "container", "support", "preference", "cookie", "x"}) {
    EXPECT_EQ(AppFile::textOfKind(AppFile::kindFromText(text)), text);
  }
}

}  // namespace
}  // namespace Core
