#include "launch/LaunchItem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "helper/HelperConnection.h"
#include "launch/ItemsStatusManager.h"
#include "platform/Locations.h"
#include "platform/Plist.h"
#include "testsupport/TestSupport.h"

namespace launch {
namespace {

using testsupport::TempDir;

TEST(ItemsStatusManagerTest, OnlyQuotedLabelsWithTrueOrFalseCount) {
  auto table = ItemsStatusManager::parseDisabled(
      "disabled services = {\n"
      "\t\"com.example.off\" => true\n"
      "\t\"com.example.on\" => false\n"
      "\t\"com.example.odd\" => maybe\n"
      "\t\"with:colon.service\" => true\n"
      "\t\"twice\" => true\n"
      "\t\"twice\" => false\n"
      "   \"spaced\"   =>   true   \n"
      "}\n"
      "true\n"
      "\n");
  EXPECT_EQ(table, (std::unordered_map<std::string, bool>{{"com.example.off", true},
                                                          {"com.example.on", false},
                                                          {"twice", false},
                                                          {"spaced", true}}));
  EXPECT_TRUE(ItemsStatusManager::parseDisabled("").empty());
  EXPECT_TRUE(ItemsStatusManager::parseDisabled(std::string("\0\xff:true\x01", 8)).size() <= 1);
}

// Items over a fixture tree, with the service manager's table from a recorder.
class LaunchItemTest : public testsupport::RootedTest {
 protected:
  LaunchItemTest() {
    locations_.root = "";  // so that the user's units go through systemctl --user
    platform::setCurrentLocations(locations_);
    runner_ = std::make_shared<testsupport::RecordingProcessRunner>();
    answer("");
  }
  // What systemctl lists in every domain.
  void answer(const std::string& listing) {
    runner_->answer("/usr/bin/systemctl", platform::ProcessOutput{listing, 0});
    ItemsStatusManager::shared().setProcessRunner(runner_);
    ItemsStatusManager::shared().reloadDisabledItems();
  }
  ~LaunchItemTest() override { detail::setApplicationURLs(nullptr); }

  std::vector<LaunchItem> find() {
    struct Receiver final : LaunchItemsFinderDelegate {
      void launchItemsFinderDidFind(const std::vector<LaunchItem>& found) override {
        items = found;
        ++calls;
      }
      std::vector<LaunchItem> items;
      int calls = 0;
    };
    auto receiver = std::make_shared<Receiver>();
    auto finder = makeLaunchItemsFinder(receiver);
    finder->start();
    EXPECT_TRUE(testsupport::drainMainUntil([&] { return receiver->calls > 0; }));
    testsupport::drainMainUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_EQ(receiver->calls, 1);
    return receiver->items;
  }

  std::string bundle(const std::string& path, const std::string& id) {
    return testsupport::macBundle(tmp_, path, id);
  }

  std::shared_ptr<testsupport::RecordingProcessRunner> runner_;
};

TEST_F(LaunchItemTest, AnEmptySystemGivesOneCallWithNothing) { EXPECT_TRUE(find().empty()); }

// Every folder of a domain, the packages' too; only units; a unit systemctl lists and no folder
// holds (generated) by its name; an enabled instance beside its template.
TEST_F(LaunchItemTest, UnitsOfEachFolderWithTheirFilters) {
  tmp_.write("home/.config/systemd/user/on.service", "[Service]\nExecStart=/usr/bin/on\n");
  tmp_.write("home/.config/systemd/user/session.target", "[Unit]\n");
  tmp_.write("home/.config/systemd/user/old.service.bak", "");
  tmp_.write("home/.config/systemd/user/README", "notes");
  tmp_.mkdir("home/.config/systemd/user/default.target.wants");
  tmp_.write("etc/systemd/user/shared-agent", "");
  tmp_.write("etc/systemd/system/off.service", "");
  tmp_.write("lib/systemd/system/probe@.service", "");
  tmp_.symlink("etc/systemd/system/multi-user.target.wants/probe@foo.service",
               "/lib/systemd/system/probe@.service");
  tmp_.write("usr/lib/systemd/system/package.timer", "");
  answer("on.service enabled enabled\noff.service disabled enabled\n");
  tmp_.write("etc/systemd/system/com.fernhollow.Ravelin.PrivilegedHelper@.service", "");
  tmp_.mkdir("etc/systemd/system/multi-user.target.wants");
  tmp_.symlink("etc/systemd/system/dbus-org.example.time.service",
               "/lib/systemd/system/timed.service");
  tmp_.symlink("etc/systemd/system/masked.service", "/dev/null");
  std::vector<std::pair<std::string, std::string>> found;
  for (const auto& item : find()) {
    std::string type = std::holds_alternative<UserAgent>(item.itemType)     ? "user"
                       : std::holds_alternative<GlobalAgent>(item.itemType) ? "global"
                                                                            : "daemon";
    std::string url =
        item.url.starts_with(tmp_.path()) ? item.url.substr(tmp_.path().size() + 1) : item.url;
    found.emplace_back(type, url + " " + item.state());
  }
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (std::vector<std::pair<std::string, std::string>>{
                       {"daemon", "etc/systemd/system/masked.service unknown"},
                       {"daemon", "etc/systemd/system/off.service disabled"},
                       {"daemon", "lib/systemd/system/probe@.service unknown"},
                       {"daemon", "lib/systemd/system/probe@foo.service enabled"},
                       {"daemon", "on.service enabled"},
                       {"daemon", "usr/lib/systemd/system/package.timer unknown"},
                       {"global", "off.service disabled"},
                       {"global", "on.service enabled"},
                       {"user", "home/.config/systemd/user/on.service enabled"},
                       {"user", "home/.config/systemd/user/session.target unknown"}}));
}

TEST_F(LaunchItemTest, HelpersAndListedApplicationsCollapseByIdentifier) {
  const std::string one = bundle("Applications/One.app", "com.example.one");
  bundle("Applications/One.app/Contents/Library/LoginItems/Helper.app", "com.example.helper");
  const std::string two = bundle("Applications/Two.app", "com.example.two");
  bundle("Applications/Two.app/Contents/Library/LoginItems/Helper.app", "com.example.helper");
  const std::string own = bundle("Applications/Own.app", "com.example.own");
  bundle("Applications/Own.app/Contents/Library/LoginItems/Agent.app",
         "com.fernhollow.Ravelin.Agent");
  detail::setApplicationURLs([=] { return std::vector<std::string>{one, two, own}; });
  // The same helper's identifier in the login-item list, by its desktop entry.
  tmp_.write("home/.config/autostart/com.example.helper.desktop",
             "[Desktop Entry]\nType=Application\nName=Helper\nExec=helper\n");
  tmp_.write("home/.config/autostart/notes.desktop",
             "[Desktop Entry]\nType=Application\nName=Notes\nExec=notes --tray\n");
  std::set<std::string> ids;
  for (const auto& item : find()) ids.insert(item.bundleId());
  EXPECT_EQ(ids, (std::set<std::string>{"com.example.helper", "notes"}));
}

TEST_F(LaunchItemTest, TheTableDecidesAndAChangeRunsOnlyWhenItChangesSomething) {
  answer("on.service enabled enabled\noff.service disabled enabled\n");
  const std::string folder = tmp_ / "home/.config/systemd/user/";
  LaunchItem on(folder + "on.service", UserAgent{});
  LaunchItem off(folder + "off.service", UserAgent{});
  LaunchItem unknown(folder + "unknown.service", UserAgent{});
  EXPECT_TRUE(on.isAutoStartEnabled());
  EXPECT_FALSE(off.isAutoStartEnabled());
  EXPECT_FALSE(unknown.isAutoStartEnabled());
  const std::size_t before = runner_->calls().size();
  EXPECT_FALSE(on.setAutoStartEnabled(true));        // enabled already
  EXPECT_FALSE(off.setAutoStartEnabled(false));      // disabled already
  EXPECT_FALSE(unknown.setAutoStartEnabled(false));  // counts as off already
  EXPECT_EQ(runner_->calls().size(), before);
  // A change counts only when the table read back after it says so.
  EXPECT_FALSE(unknown.setAutoStartEnabled(true));
  runner_->answer("/usr/bin/systemctl",
                  platform::ProcessOutput{"on.service enabled\nunknown.service enabled\n", 0});
  EXPECT_TRUE(unknown.setAutoStartEnabled(true));
  runner_->answer("/usr/bin/systemctl", platform::ProcessOutput{"on.service disabled\n", 0});
  EXPECT_TRUE(on.setAutoStartEnabled(false));
  auto calls = runner_->calls();
  std::vector<std::vector<std::string>> changes;
  for (std::size_t i = before; i < calls.size(); ++i) {
    const auto& arguments = calls[i].arguments;
    if (std::find(arguments.begin(), arguments.end(), "list-unit-files") == arguments.end()) {
      changes.push_back(arguments);
    }
  }
  EXPECT_EQ(changes,
            (std::vector<std::vector<std::string>>{{"--user", "enable", "--", "unknown.service"},
                                                   {"--user", "enable", "--", "unknown.service"},
                                                   {"--user", "disable", "--", "on.service"}}));
}

TEST_F(LaunchItemTest, APropertyListGivesItsLabelAndProgram) {
  namespace plist = platform::plist;
  tmp_.write("agent.plist",
             plist::serialize(plist::Dictionary{{"Label", "com.example.agent"},
                                                {"ProgramArguments",
                                                 plist::Array{"/usr/bin/agent", "--daemon"}}},
                              plist::Format::xml));
  tmp_.write("broken.plist", "<plist><dict><key>Label");
  LaunchItem agent(tmp_ / "agent.plist", GlobalAgent{});
  EXPECT_EQ(agent.getPlistItemLabel(), "com.example.agent");
  EXPECT_EQ(agent.runs(), "/usr/bin/agent --daemon");
  LaunchItem broken(tmp_ / "broken.plist", GlobalAgent{});
  EXPECT_EQ(broken.getPlistItemLabel(), std::nullopt);
  EXPECT_FALSE(broken.isAutoStartEnabled());
  EXPECT_FALSE(broken.setAutoStartEnabled(true));
  EXPECT_EQ(readPlistContent(""), std::nullopt);
}

// As another user, a system unit is switched by the privileged helper, as root. This helper
// makes its changes below a folder of the test, never on this system; it takes a unit's name,
// never a path.
TEST(HelperUnitsTest, ASystemUnitIsSwitchedThroughTheHelper) {
  if (::geteuid() != 0 || !std::filesystem::exists("/usr/bin/systemctl")) {
    GTEST_SKIP() << "needs root and systemctl";
  }
  TempDir tmp;
  ::chmod(tmp.path().c_str(), 0755);
  tmp.write("etc/systemd/system/backup.service",
            "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
  tmp.write("elsewhere/evil.service",
            "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
  const std::string socket = tmp / "helper.sock";
  testsupport::ChildProcess helperTool(
      {RAVELIN_HELPER_BINARY, "--socket", socket, "--allow-uid", "65534", "--units-root",
       tmp.path(), "--state-dir", tmp / "state"},
      socket);
  helper::setHelperSocket(socket);
  ItemsStatusManager manager(
      std::shared_ptr<platform::ProcessRunner>(platform::makeProcessRunner()));
  bool enabled = false, linked = true;
  {
    testsupport::AsUnprivilegedUser user;
    ASSERT_TRUE(user.ok());
    enabled = manager.change(true, "backup.service", platform::launchd::Domain::system);
    linked =
        manager.change(true, tmp / "elsewhere/evil.service", platform::launchd::Domain::system);
  }
  helper::setHelperSocket("");
  EXPECT_TRUE(enabled);
  EXPECT_TRUE(std::filesystem::is_symlink(
      tmp / "etc/systemd/system/multi-user.target.wants/backup.service"));
  EXPECT_FALSE(linked);
  EXPECT_FALSE(std::filesystem::exists(tmp / "etc/systemd/system/evil.service"));
}

}  // namespace
}  // namespace launch
