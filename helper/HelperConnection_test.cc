#include "helper/HelperConnection.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "helper/HelperInstaller.h"
#include "platform/Admin.h"
#include "platform/Files.h"
#include "platform/SystemRoots.h"
#include "testsupport/FakeHelper.h"
#include "testsupport/TestSupport.h"

namespace helper {
namespace {

using testsupport::TempDir;

// Records the helper's reports, which arrive on the transport's queue.
class RecordingDelegate final : public RVHelperDelegate {
 public:
  void helperDeletedAt(const std::string& path, bool success) override {
    std::lock_guard lock(mutex);
    results.emplace_back(path, success);
  }
  void helperDeletingAt(const std::string& path) override {
    std::lock_guard lock(mutex);
    deleting.push_back(path);
  }
  void helperDeletionCompleted() override { ++completed; }

  std::mutex mutex;
  std::vector<std::pair<std::string, bool>> results;
  std::vector<std::string> deleting;
  std::atomic<int> completed{0};
};

// The real tool, started as this test's user on a socket in a temporary folder, serving this
// user with `home` as the home folder it cleans.
class RealHelper : public testsupport::ChildProcess {
 public:
  RealHelper(const std::string& socket, const std::string& home)
      : ChildProcess({RAVELIN_HELPER_BINARY, "--socket", socket, "--allow-uid",
                      std::to_string(::getuid()), "--home", home},
                     socket) {}
};

using testsupport::connectUnix;
using testsupport::exchangeLine;
using testsupport::helperAnswersPing;
using testsupport::kHelperPing;

class HelperConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setHelperSocket(socket_);
    connection_->delegate = delegate_;
  }
  void TearDown() override { setHelperSocket(""); }

  // Drains the main queue for `span`, counting calls of the connection's error handler.
  void drainFor(std::chrono::milliseconds span) {
    testsupport::drainMainUntil([] { return false; }, span);
  }
  std::vector<std::string> events72() {
    std::vector<std::string> infos;
    for (const auto& e : analytics_.recorder().events()) {
      if (e.number == 72) infos.push_back(e.properties->at("info"));
    }
    return infos;
  }

  TempDir tmp_;
  std::string socket_ = tmp_ / "helper.sock";
  testsupport::ScopedAnalyticsRecorder analytics_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<HelperConnection> connection_ = HelperConnection::create();
};

TEST_F(HelperConnectionTest, ASecondConnectIsRefusedAndClosingCallsNoHandler) {
  RealHelper tool(socket_, tmp_ / "home");
  auto connection = HelperConnection::create();
  int errors = 0;
  connection->errorHandler = [&] { ++errors; };
  ASSERT_TRUE(connection->connect(false));
  EXPECT_FALSE(connection->connect(false));
  EXPECT_TRUE(connection->helper);
  connection->close();
  EXPECT_FALSE(connection->helper);
  drainFor(std::chrono::milliseconds(100));
  EXPECT_EQ(errors, 0);                     // closing calls no handler
  EXPECT_TRUE(connection->connect(false));  // idle again: connects anew
}

TEST_F(HelperConnectionTest, DeletesInTheServedHomeAndRefusesTheRest) {
  RealHelper tool(socket_, tmp_ / "home");
  tmp_.write("home/tree/a/b/file", "x");
  tmp_.write("outside/keep", "stays");
  tmp_.symlink("home/tree/link", tmp_ / "outside");
  ASSERT_TRUE(connection_->connect(false));
  connection_->helper->deleteAtPaths({tmp_ / "home/tree", "/", "/etc/shadow", "/usr/lib",
                                      "relative", tmp_ / "home/../outside", tmp_ / "outside/keep"});
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return delegate_->completed.load() == 1; }));
  std::lock_guard lock(delegate_->mutex);
  EXPECT_EQ(delegate_->results,
            (std::vector<std::pair<std::string, bool>>{{tmp_ / "home/tree", true},
                                                       {"/", false},
                                                       {"/etc/shadow", false},
                                                       {"/usr/lib", false},
                                                       {"relative", false},
                                                       {tmp_ / "home/../outside", false},
                                                       {tmp_ / "outside/keep", false}}));
  EXPECT_EQ(delegate_->deleting.size(), 7u);
  EXPECT_FALSE(std::filesystem::exists(tmp_ / "home/tree"));
  EXPECT_TRUE(std::filesystem::exists(tmp_ / "outside/keep"));
}

// Messages an attacker would send: each ends its connection before anything is done, and the
// helper goes on serving the next client.
TEST_F(HelperConnectionTest, HostileMessagesEndTheirConnectionAndNothingElse) {
  RealHelper tool(socket_, tmp_ / "home");
  tmp_.write("home/keep", "stays");
  tmp_.write("victim", "stays");
  const std::string home = tmp_ / "home";
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "[";
  for (const std::string& line : std::vector<std::string>{
           // "home/..<NUL>" is tmp_ itself where the system reads it.
           "{\"selector\":\"deleteAtPaths:\",\"arguments\":[[\"" + home + "/..\\u0000\"]]}\n",
           "{\"selector\":\"deleteAtPaths:\",\"arguments\":[[\"" + home + "/..\\\\x00\"]]}\n",
           std::string("{\"selector\":\"getDirectorySizeAt:with:\",\"arguments\":[\"/\\u0000\"],"
                       "\"reply\":2}\n"),
           "{\"selector\":\"test:\",\"arguments\":[" + deep + "],\"reply\":1}\n",
           "{\"selector\":\"deleteAtPaths:\",\"arguments\":[[\"" + home + "/\xff\xfe\"]]}\n",
           kHelperPing.substr(0, kHelperPing.size() - 1) + std::string(1, '\0') + "\n"}) {
    int fd = connectUnix(socket_);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(exchangeLine(fd, line), "") << line.substr(0, 80);
    ::close(fd);
    EXPECT_TRUE(helperAnswersPing(socket_)) << line.substr(0, 80);
  }
  EXPECT_TRUE(std::filesystem::exists(tmp_ / "victim"));
  EXPECT_TRUE(std::filesystem::exists(tmp_ / "home/keep"));
}

// A stop ends the batch it was sent for, even when another batch follows at once.
TEST_F(HelperConnectionTest, AStopEndsItsBatchWhateverComesAfter) {
  RealHelper tool(socket_, tmp_ / "home");
  for (int i = 0; i < 50; ++i) tmp_.write("home/first/f" + std::to_string(i), "x");
  tmp_.write("home/second/f", "x");
  ASSERT_TRUE(connection_->connect(false));
  connection_->helper->pauseDeleting();
  connection_->helper->deleteAtPaths({tmp_ / "home/first"});
  connection_->helper->stopDeleting();
  connection_->helper->deleteAtPaths({tmp_ / "home/second"});
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return delegate_->completed.load() == 2; }));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tmp_ / "home/first"), {}), 50);
  EXPECT_FALSE(std::filesystem::exists(tmp_ / "home/second"));
}

// Idle connections past the limit are closed at once: threads stay bounded and the helper still
// answers once they are gone.
TEST_F(HelperConnectionTest, ManyConnectionsLeaveTheThreadCountBounded) {
  RealHelper tool(socket_, tmp_ / "home");
  std::vector<int> idle;
  for (int i = 0; i < 500; ++i) {
    int fd = connectUnix(socket_);
    ASSERT_GE(fd, 0) << i;
    idle.push_back(fd);
  }
  // The last one is past the limit: the helper closes it, after handling all before it.
  char byte;
  EXPECT_EQ(::recv(idle.back(), &byte, 1, 0), 0);
  auto threads = [&] {
    auto status = platform::readSmallFile("/proc/" + std::to_string(tool.pid()) + "/status");
    std::size_t at = status ? status->find("Threads:") : std::string::npos;
    return at == std::string::npos ? -1 : std::stoi(status->substr(at + 8));
  };
  EXPECT_GT(threads(), 0);
  EXPECT_LE(threads(), 64);
  for (int fd : idle) ::close(fd);
  EXPECT_TRUE(helperAnswersPing(socket_));
}

// A helper that dies in the middle of a batch: the error handler runs once, on the main queue.
TEST_F(HelperConnectionTest, AHelperKilledMidBatchEndsTheConnectionOnce) {
  auto tool = std::make_unique<RealHelper>(socket_, tmp_.path());
  for (int i = 0; i < 3000; ++i) {
    tmp_.write("big/d" + std::to_string(i % 30) + "/f" + std::to_string(i), "x");
  }
  std::atomic<int> errors{0};
  std::thread::id mainThread = std::this_thread::get_id();
  bool onMain = true;
  connection_->errorHandler = [&] {
    ++errors;
    onMain &= std::this_thread::get_id() == mainThread;
  };
  ASSERT_TRUE(connection_->connect(false));
  connection_->helper->deleteAtPaths({tmp_ / "big"});
  tool->kill();
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return errors.load() > 0; }));
  drainFor(std::chrono::milliseconds(3300));
  EXPECT_EQ(errors.load(), 1);
  EXPECT_TRUE(onMain);
  EXPECT_EQ(events72(), std::vector<std::string>{"helper exit or crashed"});
  EXPECT_FALSE(connection_->helper);
}

TEST_F(HelperConnectionTest, APingAnsweredJustInTimeCountsAndOneNeverAnsweredEndsOnce) {
  {
    testsupport::FakeHelper slow(socket_, std::chrono::milliseconds(2900));
    auto connection = HelperConnection::create();
    int errors = 0;
    connection->errorHandler = [&] { ++errors; };
    ASSERT_TRUE(connection->connect(false));
    drainFor(std::chrono::milliseconds(3500));
    EXPECT_EQ(errors, 0);
    EXPECT_TRUE(events72().empty());
    connection->close();
  }
  std::filesystem::remove(socket_);
  testsupport::FakeHelper silent(socket_, std::nullopt);
  auto connection = HelperConnection::create();
  int errors = 0;
  connection->errorHandler = [&] { ++errors; };
  ASSERT_TRUE(connection->connect(false));
  drainFor(std::chrono::milliseconds(3500));
  EXPECT_EQ(errors, 1);
  // The invalidation that follows isn't reported as an exit.
  EXPECT_EQ(events72(), std::vector<std::string>{"helper not responding"});
  EXPECT_FALSE(connection->helper);
}

// Without a host's own socket the installer is asked first: a missing helper is installed only
// when the caller requires it.
TEST(HelperInstallTest, AMissingHelperIsInstalledOnlyWhenRequired) {
  TempDir tmp;
  InstallLocations locations;
  locations.toolFolder = tmp / "nothing-installed";
  setInstallLocations(locations);
  auto runner = std::make_shared<testsupport::RecordingAdminRunner>();
  runner->answer = "refused";
  platform::setAdminRunner(runner);
  auto connection = HelperConnection::create();
  EXPECT_FALSE(connection->connect(false));
  EXPECT_TRUE(runner->scripts.empty());
  EXPECT_FALSE(connection->helper);
  EXPECT_FALSE(connection->connect(true));  // the install is refused
  EXPECT_EQ(runner->scripts.size(), 1u);
  EXPECT_FALSE(connection->helper);
  platform::setAdminRunner(nullptr);
  setInstallLocations({});
}

// Pings the helper on `socket` as user `uid`, in a child process: 0 answered, 1 closed
// unanswered, 4 no connection.
int pingAs(uid_t uid, const std::string& socket) {
  pid_t child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0) ::_exit(3);
    int fd = connectUnix(socket);
    if (fd < 0) ::_exit(4);
    ::_exit(exchangeLine(fd, kHelperPing) == testsupport::kHelperPong ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Two users, two instances on their default sockets: each reaches their own, neither the
// other's. Run in a mount namespace of its own, with a memory file system on /run.
TEST(HelperCredentialsTest, EachServedUserReachesTheirOwnHelper) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run clients as other users";
  auto answer = testsupport::inMountNamespace({{"tmpfs", "/run", "tmpfs", "mode=0755"}}, [&] {
    const uid_t ada = 65534, bob = 65533;
    testsupport::ChildProcess first({RAVELIN_HELPER_BINARY, "--allow-uid", std::to_string(ada)},
                                    helperSocketPath(ada));
    testsupport::ChildProcess second({RAVELIN_HELPER_BINARY, "--allow-uid", std::to_string(bob)},
                                     helperSocketPath(bob));
    bool own = pingAs(ada, helperSocketPath(ada)) == 0 && pingAs(bob, helperSocketPath(bob)) == 0;
    bool other = pingAs(ada, helperSocketPath(bob)) == 0 || pingAs(bob, helperSocketPath(ada)) == 0;
    // A second instance for the same user leaves the first one's socket alone.
    pid_t again = ::fork();
    if (again == 0) {
      ::execl(RAVELIN_HELPER_BINARY, RAVELIN_HELPER_BINARY, "--allow-uid", "65534", nullptr);
      ::_exit(127);
    }
    int ended = 0;
    ::waitpid(again, &ended, 0);
    bool firstStays =
        WIFEXITED(ended) && WEXITSTATUS(ended) == 1 && pingAs(ada, helperSocketPath(ada)) == 0;
    // _exit runs no destructor: the helpers are ended here, or they would outlive the test.
    first.kill();
    second.kill();
    return own ? (other ? 2 : (firstStays ? 0 : 3)) : 1;
  });
  if (!answer) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(*answer, 0);
}

// The shipped unit under a real service manager: systemd booted in a container over this
// machine's /usr (`systemd-nspawn --volatile=yes`, so nothing of the machine is written), with
// the built tool, the unit and a unit folder of the test's. Through the sandbox the helper
// deletes in /var/tmp, refuses the system's files, and switches a unit with systemctl.
TEST(HelperUnderSystemdTest, TheShippedUnitServesInItsSandbox) {
#ifdef RAVELIN_HELPER_SANITIZED
  GTEST_SKIP() << "the sandbox is checked with the optimised build";
#endif
  if (::geteuid() != 0 || !std::filesystem::exists("/usr/bin/systemd-nspawn")) {
    GTEST_SKIP() << "needs root and systemd-nspawn";
  }
  TempDir tmp;
  const std::string name = kServiceName;
  tmp.write("vartmp/tree/sub/file", "goes");
  tmp.write("vartmp/keep", "stays");
  tmp.mkdir("run");
  tmp.mkdir("tool");
  tmp.mkdir("units");
  std::filesystem::copy_file(RAVELIN_HELPER_BINARY, tmp / ("tool/" + name));
  std::filesystem::copy_file(RAVELIN_HELPER_UNIT, tmp / ("units/" + name + "@.service"));
  // The tool lies elsewhere than where it is installed, which is below the machine's /usr.
  tmp.write("units/" + name + "@.service.d/test.conf",
            "[Service]\nReadOnlyPaths=\nReadOnlyPaths=/opt/ravelin\nExecStart=\n"
            "ExecStart=/opt/ravelin/" +
                name + " --allow-uid %i\n");
  tmp.write("units/probe.service",
            "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
  const std::string console = tmp / "console";
  std::vector<std::string> argv = {"/usr/bin/systemd-nspawn",
                                   "--directory=/",
                                   "--volatile=yes",
                                   "--boot",
                                   "--register=no",
                                   "--keep-unit",
                                   "--machine=ravelin-helper-check",
                                   "--console=pipe",
                                   "--bind-ro=" + tmp / "tool" + ":/opt/ravelin",
                                   "--bind=" + tmp / "units" + ":/etc/systemd/system",
                                   "--bind=" + tmp / "run" + ":/run/ravelin",
                                   "--bind=" + tmp / "vartmp" + ":/var/tmp",
                                   "--",
                                   "systemd.unit=multi-user.target",
                                   "systemd.firstboot=off",
                                   "systemd.wants=" + name + "@1000.service"};
  pid_t container = ::fork();
  ASSERT_GE(container, 0);
  if (container == 0) {
    int out = ::open(console.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(out, 2);
    std::vector<char*> pointers;
    for (auto& argument : argv) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    ::execv(pointers[0], pointers.data());
    ::_exit(127);
  }
  struct Stop {
    pid_t pid;
    ~Stop() {
      if (pid <= 0) return;
      // SIGTERM shuts the container down in order; a container that doesn't end is killed.
      ::kill(pid, SIGTERM);
      for (int i = 0; i < 600; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  } stop{container};
  // Booting takes seconds; the socket appears once the instance runs.
  const std::string socket = tmp / "run/helper-1000.sock";
  bool ended = false;
  for (int i = 0; i < 1800 && !std::filesystem::exists(socket) && !ended; ++i) {
    int status;
    ended = ::waitpid(container, &status, WNOHANG) == container;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (ended) {
    stop.pid = -1;
    GTEST_SKIP() << "systemd-nspawn can't boot a container here";
  }
  ASSERT_TRUE(std::filesystem::exists(socket)) << platform::readSmallFile(console).value_or("");

  setHelperSocket(socket);
  auto delegate = std::make_shared<RecordingDelegate>();
  auto connection = HelperConnection::create();
  connection->delegate = delegate;
  ASSERT_TRUE(connection->connect(false));
  connection->helper->deleteAtPaths({"/var/tmp/tree", "/etc/shadow", "/usr/lib/os-release"});
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return delegate->completed.load() == 1; }));
  std::atomic<int> switched{-1}, shell{-1};
  connection->helper->setUnitEnabled("probe.service", false, true,
                                     [&](bool done) { switched = done; });
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return switched.load() >= 0; }));
  connection->helper->setUnitEnabled("debug-shell.service", false, true,
                                     [&](bool done) { shell = done; });
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return shell.load() >= 0; }));
  connection->close();
  setHelperSocket("");
  {
    std::lock_guard lock(delegate->mutex);
    EXPECT_EQ(
        delegate->results,
        (std::vector<std::pair<std::string, bool>>{
            {"/var/tmp/tree", true}, {"/etc/shadow", false}, {"/usr/lib/os-release", false}}));
  }
  EXPECT_FALSE(std::filesystem::exists(tmp / "vartmp/tree"));
  EXPECT_TRUE(std::filesystem::exists(tmp / "vartmp/keep"));
  EXPECT_EQ(switched.load(), 1);
  EXPECT_TRUE(std::filesystem::is_symlink(tmp / "units/multi-user.target.wants/probe.service"));
  EXPECT_EQ(shell.load(), 0);
}

}  // namespace
}  // namespace helper
