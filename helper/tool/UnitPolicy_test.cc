#include "helper/tool/UnitPolicy.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "testsupport/TestSupport.h"

namespace helper {
namespace {

using platform::launchd::Domain;
using testsupport::TempDir;

const char kInstallable[] =
    "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n";

TEST(UnitPolicyTest, UnitsTheSystemNeedsAreProtected) {
  for (const char* label :
       {"debug-shell.service", "emergency.service", "rescue.target", "getty@tty1.service",
        "serial-getty@ttyS0.service", "autovt@tty2.service", "systemd-timesyncd.service",
        "systemd-networkd.socket", "dbus.service", "dbus-org.freedesktop.login1.service",
        "display-manager.service", "gdm.service", "lightdm.service", "ssh.service",
        "sshd@1-10.0.0.1:22.service", "com.fernhollow.Ravelin.PrivilegedHelper@1000.service"}) {
    EXPECT_TRUE(isProtectedUnit(label)) << label;
  }
  for (const char* label : {"postgresql.service", "cron.service", "apt-daily.timer",
                            "sshguard.service", "getty-extra.service", "my-systemd.service"}) {
    EXPECT_FALSE(isProtectedUnit(label)) << label;
  }
}

class UnitRefusalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tmp_.write("etc/systemd/system/backup.service", kInstallable);
    tmp_.write("etc/systemd/system/probe@.service", kInstallable);
    tmp_.write("etc/systemd/system/getty@.service", kInstallable);
    tmp_.write("etc/systemd/user/agent.service", kInstallable);
    tmp_.write("lib/systemd/system/package.service", kInstallable);
    tmp_.symlink("etc/systemd/system/alias.service", "/lib/systemd/system/package.service");
  }
  std::optional<std::string> refusal(const std::string& label, Domain domain, bool enabled) {
    return unitRefusal(label, domain, enabled, locations_, record_);
  }

  TempDir tmp_;
  platform::Locations locations_ = platform::Locations::underRoot(tmp_.path());
  DisabledUnitsRecord record_{tmp_ / "state"};
};

TEST_F(UnitRefusalTest, OnlyWhatIsListedOrWasSwitchedOffHere) {
  struct Row {
    const char* label;
    Domain domain;
    bool enabled;
    bool allowed;
  };
  for (const Row& row : std::initializer_list<Row>{
           {"backup.service", Domain::system, false, true},
           {"backup.service", Domain::system, true, true},
           {"probe@foo.service", Domain::system, false, true},  // an instance of a listed template
           {"agent.service", Domain::global, false, true},
           {"agent.service", Domain::system, false, false},   // listed in the other domain only
           {"package.service", Domain::system, false, true},  // a package's, in /lib
           {"package.service", Domain::system, true, true},
           {"package.service", Domain::global, false, false},
           {"alias.service", Domain::system, false, false},       // an alias is its unit's business
           {"getty@tty1.service", Domain::system, false, false},  // listed, but protected
           {"debug-shell.service", Domain::system, true, false},
           {"backup.service", Domain::user, false, false},
           {"../etc/shadow.service", Domain::system, false, false},
           {"/etc/systemd/system/backup.service", Domain::system, false, false},
           {"-backup.service", Domain::system, false, false},
           {"backup", Domain::system, false, false},
           {"back up.service", Domain::system, false, false}}) {
    EXPECT_EQ(!refusal(row.label, row.domain, row.enabled), row.allowed)
        << row.label << " " << static_cast<int>(row.domain) << " " << row.enabled;
  }
  // What the helper switched off itself (its file gone since) may be switched on again, in that
  // domain only.
  ASSERT_TRUE(record_.set(Domain::system, "gone.service", true));
  EXPECT_FALSE(refusal("gone.service", Domain::system, true));
  EXPECT_TRUE(refusal("gone.service", Domain::global, true));
  EXPECT_TRUE(refusal("gone.service", Domain::system, false));
  ASSERT_TRUE(record_.set(Domain::system, "gone.service", false));
  EXPECT_TRUE(refusal("gone.service", Domain::system, true));
}

// A refused unit never reaches systemctl.
TEST_F(UnitRefusalTest, ARefusedUnitRunsNothing) {
  testsupport::RecordingProcessRunner runner;
  for (const char* label : {"debug-shell.service", "alias.service", "systemd-timesyncd.service"}) {
    EXPECT_FALSE(switchUnit(runner, locations_, record_, Domain::system, label, true)) << label;
    EXPECT_FALSE(switchUnit(runner, locations_, record_, Domain::system, label, false)) << label;
  }
  EXPECT_TRUE(runner.calls().empty());
}

// With the real systemctl on a system tree of the test's: each domain reads its own state, and
// the answer is the state read back, not systemctl's exit status.
TEST_F(UnitRefusalTest, EachDomainReadsItsOwnStateAndChangesAreReadBack) {
  if (::geteuid() != 0 || !std::filesystem::exists("/usr/bin/systemctl")) {
    GTEST_SKIP() << "needs root and systemctl";
  }
  tmp_.write("etc/systemd/user/backup.service", kInstallable);
  tmp_.mkdir("etc/systemd/system/multi-user.target.wants");
  tmp_.symlink("etc/systemd/system/multi-user.target.wants/backup.service",
               "/etc/systemd/system/backup.service");
  auto runner = platform::makeProcessRunner();
  EXPECT_EQ(platform::launchd::unitState(*runner, locations_, Domain::system, "backup.service"),
            "enabled");
  EXPECT_EQ(platform::launchd::unitState(*runner, locations_, Domain::global, "backup.service"),
            "disabled");

  EXPECT_TRUE(switchUnit(*runner, locations_, record_, Domain::global, "backup.service", true));
  EXPECT_TRUE(switchUnit(*runner, locations_, record_, Domain::system, "backup.service", false));
  EXPECT_FALSE(
      std::filesystem::exists(tmp_ / "etc/systemd/system/multi-user.target.wants/backup.service"));
  EXPECT_TRUE(record_.contains(Domain::system, "backup.service"));
  EXPECT_FALSE(record_.contains(Domain::global, "backup.service"));
  // A unit without [Install] can't be switched on: systemctl exits 0, the state stays "static".
  tmp_.write("etc/systemd/system/static.service", "[Service]\nExecStart=/bin/true\n");
  EXPECT_FALSE(switchUnit(*runner, locations_, record_, Domain::system, "static.service", true));
  EXPECT_TRUE(switchUnit(*runner, locations_, record_, Domain::system, "backup.service", true));
  EXPECT_FALSE(record_.contains(Domain::system, "backup.service"));
}

}  // namespace
}  // namespace helper
