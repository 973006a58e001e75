// The two layers under launch items: XDG autostart as the login-item list, and systemd units as
// the service manager's table.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "platform/Applications.h"
#include "platform/Launchd.h"
#include "platform/Locations.h"
#include "platform/LoginItems.h"
#include "testsupport/TestSupport.h"

namespace platform {
namespace {

using testsupport::TempDir;

std::string entry(const std::string& name, const std::string& extra = "") {
  return "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + name + "\n" + extra;
}

TEST(LoginItemsTest, TheUsersEntriesOverTheSystemsAndOnlyThoseSwitchedOn) {
  TempDir tmp;
  auto l = Locations::underRoot(tmp.path());
  tmp.write("usr/share/applications/system-app.desktop", entry("System app"));
  tmp.write("etc/xdg/autostart/system-app.desktop", entry("System app"));
  tmp.write("etc/xdg/autostart/hidden-by-user.desktop", entry("Hidden"));
  tmp.write("etc/xdg/autostart/gnome-off.desktop",
            entry("Off", "X-GNOME-Autostart-enabled=false\n"));
  tmp.write("etc/xdg/autostart/garbage.desktop", std::string("\0\xff\x01[[[", 7));
  tmp.write("home/.config/autostart/hidden-by-user.desktop", entry("Hidden", "Hidden=true\n"));
  tmp.write("home/.config/autostart/own-script.desktop", entry("Mine"));
  tmp.write("home/.config/autostart/notes.txt", "not an entry");
  auto snapshot = login_items::loginItemSnapshot(l);
  std::vector<std::pair<std::string, std::string>> listed;
  for (const auto& item : snapshot) listed.emplace_back(item.entry, item.url.value_or("-"));
  // An entry resolves to its application's desktop entry, else to itself.
  EXPECT_EQ(listed, (std::vector<std::pair<std::string, std::string>>{
                        {tmp / "home/.config/autostart/own-script.desktop",
                         tmp / "home/.config/autostart/own-script.desktop"},
                        {tmp / "etc/xdg/autostart/system-app.desktop",
                         tmp / "usr/share/applications/system-app.desktop"}}));
}

TEST(LoginItemsTest, AddingAndRemovingChangeOnlyTheUsersFolder) {
  TempDir tmp;
  auto l = Locations::underRoot(tmp.path());
  const std::string app = tmp.write("usr/share/applications/editor.desktop", entry("Editor"));
  const std::string systemApp = tmp.write("usr/share/applications/agent.desktop", entry("Agent"));
  tmp.write("etc/xdg/autostart/agent.desktop", entry("Agent"));

  EXPECT_FALSE(login_items::removeLoginItem(l, app));  // not there
  EXPECT_TRUE(login_items::addLoginItem(l, app));
  EXPECT_TRUE(login_items::isInLoginItems(l, app));
  EXPECT_FALSE(login_items::addLoginItem(l, app));  // there already
  EXPECT_TRUE(std::filesystem::exists(tmp / "home/.config/autostart/editor.desktop"));
  // The user's own entry stays, switched off, and comes back as it was.
  const std::string own = tmp / "home/.config/autostart/editor.desktop";
  tmp.write("home/.config/autostart/editor.desktop", entry("Editor", "X-Mine=kept\n"));
  EXPECT_TRUE(login_items::removeLoginItem(l, app));
  EXPECT_FALSE(login_items::isInLoginItems(l, app));
  ASSERT_TRUE(std::filesystem::exists(own));
  EXPECT_TRUE(login_items::addLoginItem(l, app));
  EXPECT_TRUE(login_items::isInLoginItems(l, app));
  auto content = readDesktopEntry(own);
  ASSERT_TRUE(content);
  EXPECT_NE(content->find("X-Mine=kept"), std::string::npos);
  EXPECT_EQ(content->find("Hidden"), std::string::npos);

  // A system entry is hidden by an override of the user's, never touched; switching it on
  // again removes the override, so the system's entry counts as before.
  const std::string system = tmp / "etc/xdg/autostart/agent.desktop";
  const std::string before = *readDesktopEntry(system);
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(login_items::removeLoginItem(l, systemApp));
    EXPECT_FALSE(login_items::isInLoginItems(l, systemApp));
    EXPECT_TRUE(std::filesystem::exists(tmp / "home/.config/autostart/agent.desktop"));
    EXPECT_TRUE(login_items::addLoginItem(l, systemApp));
    EXPECT_TRUE(login_items::isInLoginItems(l, systemApp));
    EXPECT_FALSE(std::filesystem::exists(tmp / "home/.config/autostart/agent.desktop"));
    EXPECT_EQ(*readDesktopEntry(system), before);
  }
  EXPECT_FALSE(login_items::addLoginItem(l, tmp / "usr/share/applications/missing.desktop"));
}

// The user's folder a link to the system's: nothing is written, so no system entry changes.
TEST(LoginItemsTest, AUserFolderThatIsTheSystemsIsNeverWritten) {
  TempDir tmp;
  auto l = Locations::underRoot(tmp.path());
  setCurrentLocations(l);
  const std::string app = tmp.write("usr/share/applications/agent.desktop", entry("Agent"));
  tmp.write("etc/xdg/autostart/agent.desktop", entry("Agent"));
  tmp.mkdir("home/.config");
  tmp.symlink("home/.config/autostart", "/etc/xdg/autostart");
  const std::string before = *readDesktopEntry(tmp / "etc/xdg/autostart/agent.desktop");
  EXPECT_FALSE(login_items::removeLoginItem(l, app));
  EXPECT_EQ(*readDesktopEntry(tmp / "etc/xdg/autostart/agent.desktop"), before);
  setCurrentLocations(Locations::fromEnvironment());
}

// An entry meant for other desktops doesn't start in this session.
TEST(LoginItemsTest, AnEntryForOtherDesktopsIsNotListed) {
  TempDir tmp;
  auto l = Locations::underRoot(tmp.path());
  tmp.write("etc/xdg/autostart/kde-only.desktop", entry("K", "OnlyShowIn=KDE;\n"));
  tmp.write("etc/xdg/autostart/not-gnome.desktop", entry("N", "NotShowIn=GNOME;\n"));
  tmp.write("etc/xdg/autostart/gnome.desktop", entry("G", "OnlyShowIn=GNOME;Unity;\n"));
  testsupport::ScopedEnvironment desktop({{"XDG_CURRENT_DESKTOP", "ubuntu:GNOME"}});
  std::vector<std::string> listed;
  for (const auto& item : login_items::loginItemSnapshot(l)) {
    listed.push_back(std::filesystem::path(item.entry).filename());
  }
  EXPECT_EQ(listed, std::vector<std::string>{"gnome.desktop"});
}

TEST(SystemdUnitsTest, UnitStatesBecomeTheDisabledGrammar) {
  EXPECT_EQ(launchd::renderDisabled("foo.service enabled enabled\n"
                                    "bar.service disabled enabled\n"
                                    "gone.service masked -\n"
                                    "lib.service static -\n"
                                    "tmp.timer enabled-runtime -\n"
                                    "words without meaning\n"
                                    "\n"
                                    "q\"uote.service enabled enabled\n"
                                    "lonely\n"),
            "\t\"foo.service\" => false\n\t\"bar.service\" => true\n"
            "\t\"gone.service\" => true\n\t\"tmp.timer\" => false\n");
}

TEST(SystemdUnitsTest, WhatAUnitRuns) {
  TempDir tmp;
  EXPECT_EQ(launchd::unitCommand(tmp.write("a.service",
                                           "[Unit]\nExecStart=/wrong\n[Service]\nType=simple\n"
                                           "ExecStart=-/usr/bin/agent --quiet\n")),
            "/usr/bin/agent --quiet");
  EXPECT_EQ(launchd::unitCommand(tmp.write("b.timer", "[Timer]\nOnCalendar=daily\n")),
            std::nullopt);
  EXPECT_EQ(launchd::unitCommand(tmp.write("c.service", std::string("\0\0\xff", 3))), std::nullopt);
  EXPECT_EQ(launchd::unitCommand(tmp / "missing.service"), std::nullopt);
}

TEST(SystemdUnitsTest, ChangesRunSystemctlWithTheDomainsArguments) {
  TempDir tmp;
  auto l = Locations::underRoot(tmp.path());
  auto unrooted = l;
  unrooted.root = "";
  testsupport::RecordingProcessRunner runner;
  runner.answer("/usr/bin/systemctl", ProcessOutput{"", 0});
  EXPECT_TRUE(launchd::setEnabled(runner, unrooted, launchd::Domain::user, "agent.service", false));
  EXPECT_FALSE(launchd::setEnabled(runner, l, launchd::Domain::user, "agent.service", true));
  EXPECT_FALSE(launchd::setEnabled(runner, unrooted, launchd::Domain::user, "--now", true));
  const bool root = ::geteuid() == 0;
  EXPECT_EQ(launchd::setEnabled(runner, l, launchd::Domain::global, "shared.service", true), root);
  EXPECT_EQ(launchd::setEnabled(runner, l, launchd::Domain::system, "daemon.service", false), root);
  std::vector<std::vector<std::string>> expected = {{"--user", "disable", "--", "agent.service"}};
  if (root) {
    expected.push_back({"--global", "--root=" + tmp.path(), "enable", "--", "shared.service"});
    expected.push_back({"--root=" + tmp.path(), "disable", "--", "daemon.service"});
  }
  std::vector<std::vector<std::string>> made;
  for (const auto& call : runner.calls()) {
    EXPECT_EQ(call.path, "/usr/bin/systemctl");
    made.push_back(call.arguments);
  }
  EXPECT_EQ(made, expected);
}

}  // namespace
}  // namespace platform
