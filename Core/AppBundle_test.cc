#include "Core/AppBundle.h"

#include <gtest/gtest.h>

#include "platform/Applications.h"
#include "platform/Plist.h"
#include "testsupport/TestSupport.h"

namespace Core {
namespace {

using testsupport::TempDir;
namespace plist = platform::plist;

using testsupport::macBundle;

std::vector<std::string> texts(const std::vector<CaseInsensitiveString>& values) {
  std::vector<std::string> out;
  for (const auto& v : values) out.push_back(v.origin());
  return out;
}

TEST(MacAppBundleTest, IdentityNeedsAnExecutableInMacOS) {
  TempDir tmp;
  macBundle(tmp, "Named.app", "com.example.Named", "Pretty Name");
  macBundle(tmp, "Unnamed.app", "com.example.Unnamed");
  macBundle(tmp, "NoExec.app", "com.example.NoExec", std::nullopt, false);
  tmp.write("Flat.app/Info.plist",
            plist::serialize(plist::Dictionary{{"CFBundleIdentifier", "x"}}, plist::Format::xml));
  tmp.write("Broken.app/Contents/Info.plist", "<plist><dict>");

  auto named = MacAppBundle::make(tmp / "Named.app");
  ASSERT_TRUE(named);
  EXPECT_EQ(named->bundleID, CaseInsensitiveString("com.example.named"));
  EXPECT_EQ(texts(named->bundleNames), std::vector<std::string>{"Pretty Name"});
  EXPECT_TRUE(named->bundleIDs.empty());
  EXPECT_EQ(texts(MacAppBundle::make(tmp / "Unnamed.app")->bundleNames),
            std::vector<std::string>{"main"});  // the executable's name
  EXPECT_FALSE(MacAppBundle::make(tmp / "NoExec.app"));
  EXPECT_FALSE(MacAppBundle::make(tmp / "Flat.app"));
  EXPECT_FALSE(MacAppBundle::make(tmp / "Broken.app"));
  EXPECT_FALSE(MacAppBundle::make(tmp / "Missing.app"));
}

TEST(MacAppBundleTest, NestedBundlesAreFoundThroughTheirContainersOnly) {
  TempDir tmp;
  macBundle(tmp, "Outer.app", "com.example.outer", "Outer");
  macBundle(tmp, "Outer.app/Contents/Library/LoginItems/Helper.app", "com.example.helper",
            "Helper");
  macBundle(tmp, "Outer.app/Contents/Applications/Inner.app", "com.example.inner", "Inner");
  macBundle(tmp, "Outer.app/Contents/Frameworks/Kit.framework/Versions/A/XPCServices/Svc.xpc",
            "com.example.svc", "Svc");
  tmp.symlink("Outer.app/Contents/Frameworks/Kit.framework/Versions/Current", "A");
  // A framework's own identity is never read: it is entered through its versions only.
  macBundle(tmp, "Outer.app/Contents/Frameworks/Kit.framework", "com.example.kit", "Kit");
  // A bundle without executable gives no identity, but its Contents is walked.
  macBundle(tmp, "Outer.app/Contents/PlugIns/Plain.bundle", "com.example.plain", "Plain", false);
  macBundle(tmp, "Outer.app/Contents/PlugIns/Plain.bundle/Contents/PlugIns/Deep.appex",
            "com.example.deep", "Deep");
  // Resources and unlisted folders are not entered.
  macBundle(tmp, "Outer.app/Contents/Resources/Hidden.app", "com.example.hidden", "Hidden");
  macBundle(tmp, "Outer.app/Contents/Other/Lost.app", "com.example.lost", "Lost");

  auto outer = MacAppBundle::make(tmp / "Outer.app");
  ASSERT_TRUE(outer);
  outer->loadNestedBundles();
  auto ids = texts(outer->bundleIDs);
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(ids, (std::vector<std::string>{"com.example.deep", "com.example.helper",
                                           "com.example.inner", "com.example.svc"}));
  EXPECT_EQ(outer->bundleNames.size(), 5u);  // its own name first, then one per nested bundle
  EXPECT_EQ(outer->bundleNames.front(), CaseInsensitiveString("Outer"));
}

// A link inside a bundle is no folder to walk: a link to ".." would make the walk endless.
TEST(MacAppBundleTest, LinksInsideABundleAreNotWalked) {
  TempDir tmp;
  macBundle(tmp, "Outer.app", "com.example.outer", "Outer");
  macBundle(tmp, "Outer.app/Contents/Library/LoginItems/Helper.app", "com.example.helper");
  tmp.mkdir("Outer.app/Contents/Library/Frameworks");
  tmp.symlink("Outer.app/Contents/Library/Frameworks/Loop.framework", "..");
  tmp.symlink("Outer.app/Contents/Library/Frameworks/Up", "../..");
  tmp.symlink("Outer.app/Contents/Library/PlugIns", "../Library");
  auto outer = MacAppBundle::make(tmp / "Outer.app");
  ASSERT_TRUE(outer);
  outer->loadNestedBundles();
  EXPECT_EQ(texts(outer->bundleIDs), std::vector<std::string>{"com.example.helper"});
}

class DesktopAppsTest : public testsupport::RootedTest {
 protected:
  DesktopAppsTest() {
    locations_.applications.push_back(tmp_ / "flatpak/exports/share/applications");
    platform::setCurrentLocations(locations_);
  }

  void entry(const std::string& path, const std::string& body) {
    tmp_.write(path, "[Desktop Entry]\n" + body);
  }
};

TEST_F(DesktopAppsTest, FirstFolderWinsHiddenEntriesHideAndIDsComeFromPaths) {
  entry("usr/share/applications/firefox.desktop",
        "Type=Application\nName=Firefox\nExec=firefox %u\n");
  entry("home/.local/share/applications/firefox.desktop",
        "Type=Application\nName=My Firefox\nExec=env MOZ_X=1 /opt/ff/firefox-bin %u\n");
  entry("usr/share/applications/gone.desktop", "Type=Application\nName=Gone\nExec=gone\n");
  entry("home/.local/share/applications/gone.desktop", "Hidden=true\n");
  entry("usr/share/applications/kde4/konsole.desktop",
        "Type=Application\nName=Konsole\nExec=konsole\n");
  tmp_.write("usr/share/applications/broken.desktop", "not a desktop file at all [[[");
  entry("usr/share/applications/link.desktop", "Type=Link\nName=Web\nURL=https://x\n");

  // Helpers a desktop never shows as applications of their own.
  entry("usr/share/applications/vlc.desktop", "Type=Application\nName=VLC\nExec=vlc\n");
  entry("usr/share/applications/vlc-openbd.desktop",
        "Type=Application\nName=VLC\nExec=vlc bluray://\nNoDisplay=true\n");

  auto urls = Core::applicationURLs();
  EXPECT_EQ(urls, (std::vector<std::string>{tmp_ / "home/.local/share/applications/firefox.desktop",
                                            tmp_ / "usr/share/applications/kde4/konsole.desktop",
                                            tmp_ / "usr/share/applications/link.desktop",
                                            tmp_ / "usr/share/applications/vlc.desktop"}));
  AppBundleLoader loader;
  auto firefox = loader.bundle(urls[0]);
  ASSERT_TRUE(firefox);
  EXPECT_EQ(firefox->bundleID.origin(), "firefox");
  EXPECT_EQ(texts(firefox->bundleNames), (std::vector<std::string>{"My Firefox", "firefox-bin"}));
  EXPECT_FALSE(loader.bundle(tmp_ / "usr/share/applications/broken.desktop"));
  EXPECT_EQ(loader.bundle(urls[1])->bundleID.origin(), "kde4-konsole");
  EXPECT_FALSE(loader.bundle(urls[2]));  // not an application
}

// Application folders are read from the machine: a pipe named like an entry must not hang the
// listing, and links back up the tree must not multiply it. A linked entry still counts, since
// flatpak exports its entries as links.
TEST_F(DesktopAppsTest, PipesAndLinkLoopsInApplicationFolders) {
  entry("usr/share/applications/real.desktop", "Type=Application\nName=Real\nExec=real\n");
  entry("elsewhere/linked.desktop", "Type=Application\nName=Linked\nExec=linked\n");
  // An absolute link is taken below the root, as the system there would take it.
  tmp_.symlink("usr/share/applications/linked.desktop", "/elsewhere/linked.desktop");
  for (const char* name : {"a", "b", "c", "d", "e", "f"}) {
    tmp_.symlink(std::string("usr/share/applications/") + name, ".");
  }
  tmp_.symlink("usr/share/applications/up", "..");
  testsupport::FifoGuard guard(tmp_ / "usr/share/applications/pipe.desktop");

  auto urls = Core::applicationURLs();
  EXPECT_FALSE(guard.fired()) << "a pipe was opened and waited for";
  EXPECT_EQ(urls, (std::vector<std::string>{tmp_ / "usr/share/applications/linked.desktop",
                                            tmp_ / "usr/share/applications/real.desktop"}));
  AppBundleLoader loader;
  EXPECT_FALSE(loader.bundle(tmp_ / "usr/share/applications/pipe.desktop"));
  EXPECT_FALSE(guard.fired());
}

// Without a root, links are followed as the desktop follows them: flatpak exports its entries as
// links into its installation.
TEST_F(DesktopAppsTest, WithoutARootLinkedEntriesAreRead) {
  auto locations = platform::currentLocations();
  locations.root = "";
  platform::setCurrentLocations(locations);
  entry("var/lib/flatpak/app/org.example.App/export/org.example.App.desktop",
        "Type=Application\nName=App\nExec=app\n");
  tmp_.symlink("usr/share/applications/org.example.App.desktop",
               tmp_ / "var/lib/flatpak/app/org.example.App/export/org.example.App.desktop");
  auto urls = Core::applicationURLs();
  ASSERT_EQ(urls,
            std::vector<std::string>{tmp_ / "usr/share/applications/org.example.App.desktop"});
  AppBundleLoader loader;
  auto bundle = loader.bundle(urls.front());
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->bundleID.origin(), "org.example.App");
}

TEST_F(DesktopAppsTest, FlatpaksExportTheirNestedEntriesAndServices) {
  const std::string exports = "flatpak/exports/share/";
  entry(exports + "applications/org.gnome.Maps.desktop",
        "Type=Application\nName=Maps\nExec=/usr/bin/flatpak run --branch=stable "
        "--command=gnome-maps org.gnome.Maps\n");
  entry(exports + "applications/org.gnome.Maps.Offline.desktop",
        "Type=Application\nName=Maps Offline\nExec=x\n");
  tmp_.write(exports + "dbus-1/services/org.gnome.Maps.SearchProvider.service",
             "[D-BUS Service]\n");
  tmp_.write(exports + "dbus-1/services/org.other.service", "[D-BUS Service]\n");

  AppBundleLoader loader;
  auto maps = loader.bundle(tmp_ / (exports + "applications/org.gnome.Maps.desktop"));
  ASSERT_TRUE(maps);
  EXPECT_EQ(texts(maps->bundleNames), (std::vector<std::string>{"Maps", "gnome-maps"}));
  maps->loadNestedBundles();
  EXPECT_EQ(texts(maps->bundleIDs),
            (std::vector<std::string>{"org.gnome.Maps.Offline", "org.gnome.Maps.SearchProvider"}));
}

}  // namespace
}  // namespace Core
