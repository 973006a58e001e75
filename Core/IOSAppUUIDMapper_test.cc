#include "Core/IOSAppUUIDMapper.h"

#include <gtest/gtest.h>

#include "platform/Plist.h"
#include "testsupport/TestSupport.h"

namespace Core {
namespace {

namespace plist = platform::plist;
using testsupport::TempDir;

constexpr const char* kGameUUID = "0A1B2C3D-0000-1111-2222-333344445555";
constexpr const char* kWidgetUUID = "9F8E7D6C-0000-1111-2222-333344445555";

class IOSAppsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    container(kGameUUID, "com.example.Game");
    // As the system writes it: XML with its document type, tabs and other keys.
    tmp_.write(std::string("home/Library/Containers/") + kWidgetUUID +
                   "/.com.apple.containermanagerd.metadata.plist",
               R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>MCMMetadataIdentifier</key>
	<string>com.example.Game.Widget</string>
	<key>Version</key>
	<integer>7</integer>
</dict>
</plist>
)");
    container("com.example.named-by-id", "com.example.Named");  // not a UUID: never read
    tmp_.write(std::string("home/Library/Containers/BROKEN00-0000-1111-2222-333344445555/") +
                   ".com.apple.containermanagerd.metadata.plist",
               "garbage");
    mapper_ = std::make_shared<IOSAppUUIDMapper>(tmp_ / "home");
  }
  void container(const std::string& name, const std::string& owner) {
    tmp_.write("home/Library/Containers/" + name + "/.com.apple.containermanagerd.metadata.plist",
               plist::serialize(plist::Dictionary{{"MCMMetadataIdentifier", owner}},
                                plist::Format::binary));
  }
  void iosBundle(const std::string& path, const std::string& id) {
    tmp_.write(path + "/Info.plist",
               plist::serialize(plist::Dictionary{{"CFBundleIdentifier", id}}, plist::Format::xml));
  }

  TempDir tmp_;
  std::shared_ptr<IOSAppUUIDMapper> mapper_;
};

// Containers are read in one pass and looked up ignoring case; an identifier without a
// container gets a throw-away UUID each time, and the folders are listed again.
TEST_F(IOSAppsTest, ContainersAreReadInOnePassAndLookupsIgnoreCase) {
  EXPECT_EQ(mapper_->uuid(CaseInsensitiveString("COM.EXAMPLE.GAME")).origin(), kGameUUID);
  EXPECT_EQ(mapper_->uuid(CaseInsensitiveString("com.example.game.widget")).origin(), kWidgetUUID);
  EXPECT_EQ(mapper_->listings, 1);
  EXPECT_EQ(mapper_->uuids.size(), 2u);  // the folder named by an identifier wasn't read
  auto first = mapper_->uuid(CaseInsensitiveString("com.example.Named"));
  auto second = mapper_->uuid(CaseInsensitiveString("com.example.Named"));
  EXPECT_EQ(first.origin().size(), 36u);
  EXPECT_NE(first, second);
  EXPECT_EQ(mapper_->listings, 3);
}

TEST_F(IOSAppsTest, WrappedBundlesLiveUnderApplicationsAndMapTheirPlugIns) {
  const std::string applications = tmp_ / "Applications/";
  iosBundle("Applications/Game.app/WrappedBundle", "com.example.Game");
  iosBundle("Applications/Game.app/WrappedBundle/PlugIns/Widget.appex", "com.example.Game.Widget");
  tmp_.write("Applications/Game.app/WrappedBundle/PlugIns/notes.txt", "x");
  iosBundle("Elsewhere/Game.app/WrappedBundle", "com.example.Game");

  auto game = WrappedBundle::make(tmp_ / "Applications/Game.app", mapper_, applications);
  ASSERT_TRUE(game);
  EXPECT_EQ(game->bundleID.origin(), kGameUUID);
  EXPECT_TRUE(game->bundleNames.empty());
  game->loadNestedBundles();
  ASSERT_EQ(game->bundleIDs.size(), 1u);
  EXPECT_EQ(game->bundleIDs[0].origin(), kWidgetUUID);

  EXPECT_FALSE(WrappedBundle::make(tmp_ / "Elsewhere/Game.app", mapper_, applications));
  EXPECT_FALSE(WrappedBundle::make(tmp_ / "Applications/Missing.app", mapper_, applications));
}

}  // namespace
}  // namespace Core
