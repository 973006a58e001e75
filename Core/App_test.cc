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

TEST(AppFileTest, FileRecordsRenderTheirSize) {
  File file{"/tmp/a", 1'500'000};
  AppFile appFile{"/tmp/b", 0, AppFile::Log{}, AppName{"gone.app"}};
  EXPECT_EQ(file.sizeString(), "1.5 MB");
  EXPECT_EQ(sizeString(file), "1.5 MB");
  EXPECT_EQ(appFile.sizeString(), "Zero KB");
  EXPECT_EQ(Duplicate(Photo{"ID/L0/001", file}), Duplicate(Photo{"ID/L0/001", file}));
  EXPECT_NE(Duplicate(file), Duplicate(Photo{"ID/L0/001", file}));
}

}  // namespace
}  // namespace Core
