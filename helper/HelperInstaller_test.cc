#include "helper/HelperInstaller.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "helper/Protocols.h"
#include "platform/Admin.h"
#include "testsupport/TestSupport.h"

namespace helper {
namespace {

using testsupport::TempDir;

using testsupport::RecordingAdminRunner;

std::string infoPlist(const std::string& version) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
         "<key>CFBundleVersion</key><string>" +
         version + "</string></dict></plist>";
}

class InstallerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    InstallLocations locations;
    locations.programPrefix = tmp_ / "program";
    locations.toolFolder = tmp_ / "system/libexec";
    locations.unitFolder = tmp_ / "system/units";
    setInstallLocations(locations);
    platform::setAdminRunner(runner_);
  }
  void TearDown() override {
    setInstallLocations({});
    platform::setAdminRunner(nullptr);
  }
  // A tool file holding its information property list among other bytes, as the built one does.
  void tool(const std::string& relative, const std::string& version) {
    tmp_.write(relative, std::string("\x7f"
                                     "ELF junk",
                                     9) +
                             infoPlist(version) + "more");
  }

  TempDir tmp_;
  std::shared_ptr<RecordingAdminRunner> runner_ = std::make_shared<RecordingAdminRunner>();
};

TEST(VersionTest, NumbersCompareByValueAndTheBuiltToolCarriesItsOwn) {
  EXPECT_GT(compareVersions("2.10", "2.9"), 0);
  EXPECT_LT(compareVersions("2.9", "2.10"), 0);
  EXPECT_EQ(compareVersions("1.0.3", "1.0.3"), 0);
  EXPECT_EQ(compareVersions("1.02", "1.2"), 0);
  EXPECT_GT(compareVersions("1.0.1", "1.0"), 0);
  EXPECT_LT(compareVersions("1.0", "1.0a"), 0);

  // The built tool carries its version in its file; other files, and a pipe, carry none.
  EXPECT_EQ(readBundleVersion(RAVELIN_HELPER_BINARY), RAVELIN_HELPER_VERSION);
  TempDir tmp;
  EXPECT_FALSE(readBundleVersion(tmp.write("plain", "no property list here")));
  EXPECT_FALSE(readBundleVersion(tmp / "missing"));
  testsupport::FifoGuard pipe(tmp / "pipe");
  EXPECT_FALSE(readBundleVersion(tmp / "pipe"));
  EXPECT_FALSE(pipe.fired());
}

TEST_F(InstallerTest, AnEqualOrNewerInstalledHelperIsKept) {
  tool("program/libexec/ravelin/" + std::string(kServiceName), "2.9");
  EXPECT_TRUE(helperNeedsInstall());  // nothing installed
  tool("system/libexec/" + std::string(kServiceName), "2.9");
  tmp_.write("system/units/" + std::string(kServiceName) + "@.service", "[Unit]");
  EXPECT_TRUE(helperNeedsInstall());  // another user's instance is no use to this one
  tmp_.mkdir("system/units/multi-user.target.wants");
  tmp_.symlink(enabledInstancePath(::getuid()).substr(tmp_.path().size() + 1),
               tmp_ / ("system/units/" + std::string(kServiceName) + "@.service"));
  EXPECT_FALSE(helperNeedsInstall());
  tool("system/libexec/" + std::string(kServiceName), "2.10");
  EXPECT_FALSE(helperNeedsInstall());
  tool("system/libexec/" + std::string(kServiceName), "2.8.9");
  EXPECT_TRUE(helperNeedsInstall());
  tmp_.write("system/libexec/" + std::string(kServiceName), "no version");
  EXPECT_TRUE(helperNeedsInstall());
  tool("system/libexec/" + std::string(kServiceName), "3");
  tmp_.write("program/libexec/ravelin/" + std::string(kServiceName), "no version");
  EXPECT_TRUE(helperNeedsInstall());
}

// One script does it all: the older helper is taken away first, the program's folder travels in
// the environment, never in the text, and analytics tell the outcome.
TEST_F(InstallerTest, OneScriptUninstallsTheOlderHelperThenInstalls) {
  tmp_.write("system/units/" + std::string(kOlderServiceName) + "@.service", "[Unit]");
  testsupport::ScopedAnalyticsRecorder analytics;
  ASSERT_TRUE(installHelper());
  ASSERT_EQ(runner_->scripts.size(), 1u);
  const std::string& script = runner_->scripts[0];
  // Taking it away may fail; installing may not.
  EXPECT_LT(script.find("set +e"), script.find(kOlderServiceName));
  EXPECT_LT(script.find(kOlderServiceName), script.find("set -e"));
  EXPECT_EQ(script.find(tmp_ / "program"), std::string::npos);
  EXPECT_EQ(runner_->environments[0].at("__APP_PATH"), tmp_ / "program");
  runner_->answer = "Request dismissed";
  EXPECT_FALSE(installHelper());
  auto events = analytics.recorder().events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].number, 45);
  EXPECT_EQ(events[0].properties->at("info"), "ok");
  EXPECT_EQ(events[1].properties->at("info"), "error: Request dismissed");
}

// The real script, run for real as root: in a mount namespace of its own, with the system's
// folders on memory file systems and systemctl a recorder, from a program folder whose name
// holds blanks and quotes. Then the installed tool is started and pinged.
TEST(InstallScriptTest, InstallsTheShippedToolAndUnitForReal) {
  if (::geteuid() != 0) GTEST_SKIP() << "the script runs as root";
  const std::string systemTool = "/usr/local/libexec/ravelin/" + std::string(kServiceName);
  const bool installedBefore = std::filesystem::exists(systemTool);
  TempDir tmp;
  const std::string prefix = tmp / "pro gram \"it's\" $HOME";
  std::filesystem::create_directories(prefix + "/libexec/ravelin");
  const std::string built = std::filesystem::path(RAVELIN_HELPER_BINARY).parent_path().string();
  for (const char* name : {kServiceName, "@.service"}) {
    std::string file = name[0] == '@' ? std::string(kServiceName) + name : name;
    std::filesystem::copy_file(built + "/" + file, prefix + "/libexec/ravelin/" + file);
  }
  const std::string log = tmp / "systemctl.log";
  std::string recorder = tmp.write("recorder", "#!/bin/sh\necho \"$@\" >> '" + log + "'\n");
  ::chmod(recorder.c_str(), 0755);

  auto installed = testsupport::inMountNamespace(
      {{"tmpfs", "/usr/local", "tmpfs"},
       {"tmpfs", "/etc/systemd/system", "tmpfs"},
       {recorder, "/bin/systemctl"}},
      [&] {
        InstallLocations locations;
        locations.programPrefix = prefix;
        setInstallLocations(locations);
        // Whatever the caller's mask, the installed files get their own modes.
        ::umask(0);
        if (!installHelper()) return 1;
        const std::string folder = "/usr/local/libexec/ravelin";
        const std::string tool = folder + "/" + std::string(kServiceName);
        const std::string unit = installedUnitPath(kServiceName);
        auto modeIs = [](const std::string& path, mode_t mode) {
          struct stat status;
          return ::lstat(path.c_str(), &status) == 0 && status.st_uid == 0 &&
                 (status.st_mode & 07777) == mode;
        };
        if (!modeIs(folder, 0755) || !modeIs(tool, 0755) || !modeIs(unit, 0644)) return 2;
        // Enabling made this link; the recorder in systemctl's place didn't.
        std::filesystem::create_directories("/etc/systemd/system/multi-user.target.wants");
        std::filesystem::create_symlink(unit, enabledInstancePath(::getuid()));
        if (helperNeedsInstall()) return 4;  // the same version is now in place
        // Again, over what is there: the current helper is disabled and removed first.
        if (!installHelper()) return 5;
        std::string socket = tmp / "installed.sock";
        pid_t server = ::fork();
        if (server == 0) {
          ::execl(tool.c_str(), tool.c_str(), "--socket", socket.c_str(), "--allow-uid", "0",
                  nullptr);
          ::_exit(127);
        }
        const bool answered = testsupport::helperAnswersPing(socket);
        ::kill(server, SIGKILL);
        ::waitpid(server, nullptr, 0);
        if (!answered) return 6;
        // A unit that others may change says nothing root should run: nothing is installed.
        std::filesystem::remove(tool);
        std::filesystem::remove(unit);
        ::chmod((prefix + "/libexec/ravelin/" + std::string(kServiceName) + "@.service").c_str(),
                0664);
        if (installHelper()) return 7;
        if (!std::filesystem::is_empty(folder) || std::filesystem::exists(unit)) return 8;
        return 0;
      });
  if (!installed) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(*installed, 0);
  std::ifstream recorded(log);
  std::string calls((std::istreambuf_iterator<char>(recorded)), std::istreambuf_iterator<char>());
  const std::string uid = std::to_string(::getuid());
  EXPECT_NE(calls.find("enable --now " + std::string(kServiceName) + "@" + uid + ".service"),
            std::string::npos)
      << calls;
  EXPECT_NE(calls.find("disable --now " + std::string(kServiceName) + "@" + uid + ".service"),
            std::string::npos)
      << calls;
  // The machine's own folders were never touched.
  EXPECT_EQ(std::filesystem::exists(systemTool), installedBefore);
}

}  // namespace
}  // namespace helper
