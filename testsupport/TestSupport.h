#pragma once

// Helpers shared by the test binaries: temporary trees, main-queue draining and recorders.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Admin.h"
#include "platform/Analytics.h"
#include "platform/Locations.h"
#include "platform/Metadata.h"
#include "platform/Process.h"

namespace testsupport {

// A fresh folder under the system's temporary folder, removed with all it holds (permissions
// restored first) when the value goes away.
class TempDir {
 public:
  TempDir();
  // Under `base` instead of the system's temporary folder (for instance "/dev/shm", where a
  // test needs many files made fast); the system's when `base` isn't a writable folder.
  explicit TempDir(const std::string& base);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // `path()` joined with `relative`.
  std::string operator/(const std::string& relative) const;

  // Creates the file (and its parent folders) with `content`; gives its absolute path.
  std::string write(const std::string& relative, const std::string& content = "");
  // Creates the folder and its parents; gives its absolute path.
  std::string mkdir(const std::string& relative);
  // Creates a symbolic link at `relative` pointing at `target` (verbatim).
  std::string symlink(const std::string& relative, const std::string& target);
  // Sets the modification time of `relative` (not following a link) to `seconds` ago; gives its
  // absolute path.
  std::string age(const std::string& relative, long seconds);

 private:
  std::string path_;
};

// A macOS-layout bundle at `relative` below `tmp`: Contents/Info.plist with the identifier, the
// name when given and the executable "main", and (unless `executable` is false)
// Contents/MacOS/main. Gives its absolute path.
std::string macBundle(TempDir& tmp, const std::string& relative, const std::string& id,
                      std::optional<std::string> name = std::nullopt, bool executable = true);

// Sets environment variables for its lifetime (nullopt unsets one) and puts back what was there.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(
      std::initializer_list<std::pair<std::string, std::optional<std::string>>> variables);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// What a program run by `runProgram` came to.
struct RunOutcome {
  int status = -1;  // exit status, or 128 + signal
  std::string out;  // standard output (and standard error, on a terminal)
  std::string err;
};

// How `runProgram` runs a program.
struct RunOptions {
  std::optional<unsigned short> terminalWidth;  // run on a pseudo-terminal this wide
  std::optional<rlim_t> descriptors;            // RLIMIT_NOFILE of the program
  // Run as this user (and group) instead of the test's own.
  std::optional<uid_t> user;
  // Called with the program's process id while it runs; may signal it.
  std::function<void(pid_t)> whileRunning;
  // "NAME=value" entries set in the program's environment; "NAME" alone unsets NAME.
  std::vector<std::string> environment;
  // A folder the program sees on a read-only mount of its own (needs root).
  std::optional<std::string> readOnly;
  // Folders bind-mounted (source, target) in a mount namespace of the program's (needs root).
  std::vector<std::pair<std::string, std::string>> binds;
};

// Runs the program `argv[0]` with `argv` and waits for its end, reading its output meanwhile.
RunOutcome runProgram(std::vector<std::string> argv, const RunOptions& options = {});

// A mount made for `inMountNamespace`: a bind mount of `source` when `type` is empty, else a
// file system of `type` (with `data` as its options).
struct Mount {
  std::string source, target;
  std::string type = {}, data = {};
};

// Runs `body` in a child process with a mount namespace of its own, once `mounts` are made in
// it, so that the machine's own mounts stay untouched; gives `body`'s answer (0 for success, as
// an exit status). Nothing when no such namespace or mount can be had here (not root): the test
// then skips.
std::optional<int> inMountNamespace(const std::vector<Mount>& mounts,
                                    const std::function<int()>& body);

// Runs `body` on a thread of its own that can't read past file permissions, even as root: the
// thread's effective capabilities lose CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH. Permission
// tests use it so that they test something when the suite runs as root.
void withoutPermissionOverride(const std::function<void()>& body);

// While alive, the whole process (every thread, the queues' workers too) acts as the
// unprivileged user 65534, keeping root as its saved user to go back to. Needs root; `ok()` says
// whether the switch was made. Folders the test makes must be open to that user.
class AsUnprivilegedUser {
 public:
  AsUnprivilegedUser();
  ~AsUnprivilegedUser();
  AsUnprivilegedUser(const AsUnprivilegedUser&) = delete;
  AsUnprivilegedUser& operator=(const AsUnprivilegedUser&) = delete;
  bool ok() const { return ok_; }

 private:
  bool ok_;
};

// A program started by a test in a process of its own, killed and reaped when the value goes
// away. With `waitFor`, the constructor waits (up to ten seconds) for that path to appear, and
// when it is a socket, until the server behind it takes a connection.
class ChildProcess {
 public:
  explicit ChildProcess(std::vector<std::string> argv, const std::string& waitFor = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  void kill();
  int pid() const { return pid_; }

 private:
  int pid_ = -1;
};

// `n` bytes of deterministic noise: different seeds give different contents of the same size.
std::string randomBytes(std::size_t n, unsigned seed);

// Makes a FIFO at `path` and stands guard over it: should anything still be blocked opening or
// reading it when `timeout` has passed, the guard opens it for writing and closes it, so that a
// test that would hang fails instead. `fired()` says whether that was needed.
class FifoGuard {
 public:
  explicit FifoGuard(std::string path,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10));
  ~FifoGuard();
  FifoGuard(const FifoGuard&) = delete;
  FifoGuard& operator=(const FifoGuard&) = delete;
  bool fired() const { return fired_.load(); }

 private:
  std::string path_;
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::atomic<bool> fired_{false};
  std::thread thread_;
};

// Drains the main queue until `done` or the timeout; gives `done()`. `done` is looked at after
// every task and at least every 10 ms, so it may watch what other threads do.
bool drainMainUntil(const std::function<bool()>& done,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Keeps every event it is given.
class RecordingAnalytics final : public platform::IAnalytics {
 public:
  struct Event {
    int number;
    std::optional<std::map<std::string, std::string>> properties;
  };
  void recordEvent(int event) override;
  void recordEvent(int event, const std::map<std::string, std::string>& properties) override;
  std::vector<Event> events() const;

 private:
  mutable std::mutex mutex_;
  std::vector<Event> events_;
};

// Installs a `RecordingAnalytics` for the lifetime of the value.
class ScopedAnalyticsRecorder {
 public:
  ScopedAnalyticsRecorder();
  ~ScopedAnalyticsRecorder();
  RecordingAnalytics& recorder() { return *recorder_; }

 private:
  std::shared_ptr<RecordingAnalytics> recorder_;
};

// Records each run and answers from a table of canned outputs keyed by program path.
class RecordingProcessRunner final : public platform::ProcessRunner {
 public:
  struct Call {
    std::string path;
    std::vector<std::string> arguments;
  };
  void answer(const std::string& path, platform::ProcessOutput output);
  std::optional<platform::ProcessOutput> run(const std::string& path,
                                             const std::vector<std::string>& arguments) override;
  std::vector<Call> calls() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, platform::ProcessOutput> answers_;
  std::vector<Call> calls_;
};

// A connection to the Unix socket `path`, reads on it ending after 30 seconds at most (only a
// guard against a hang); -1 when nothing accepts it.
int connectUnix(const std::string& path);
// Sends `line` on `fd` and reads until a whole line has come or the peer closes: what came,
// "" when the peer closed without a word.
std::string exchangeLine(int fd, const std::string& line);
// The helper's ping, and its answer.
inline const std::string kHelperPing = "{\"selector\":\"test:\",\"arguments\":[],\"reply\":1}\n";
inline const std::string kHelperPong = "{\"arguments\":[],\"reply\":1}\n";
// Pings the helper on `socket` on a new connection, tried until one is accepted and answered or
// closed (a helper starting, or busy with other clients): true when it answered the ping.
bool helperAnswersPing(const std::string& socket);

// Records each script run as root, and answers `answer` (nothing: it ran).
class RecordingAdminRunner final : public platform::AdminRunner {
 public:
  std::optional<std::string> runAsRoot(
      const std::string& script, const std::map<std::string, std::string>& environment) override {
    scripts.push_back(script);
    environments.push_back(environment);
    return answer;
  }
  std::vector<std::string> scripts;
  std::vector<std::map<std::string, std::string>> environments;
  std::optional<std::string> answer;
};

// A file index whose settings, results and events the test controls: it records what it is
// told, and with `finishOnStart` it reports that it has gathered its `items` as soon as it is
// started (on the main queue).
class ScriptedQuery final : public platform::MetadataQuery {
 public:
  explicit ScriptedQuery(std::vector<platform::MetadataItem> items = {}, bool finishOnStart = false)
      : items(std::move(items)), finishOnStart_(finishOnStart) {}
  void setPredicate(platform::MetadataPredicate p) override { predicate = p; }
  void setSearchScopes(std::vector<std::string> s) override { scopes = s; }
  void setNotificationBatchingInterval(std::chrono::milliseconds i) override { interval = i; }
  void setSortBySizeDescending(bool d) override { descending = d; }
  void setDidUpdate(std::function<void()> h) override { update = h; }
  void setDidFinishGathering(std::function<void()> h) override { finish = h; }
  void startQuery() override;
  void stopQuery() override { ++stops; }
  const std::vector<platform::MetadataItem>& results() const override { return items; }

  platform::MetadataPredicate predicate;
  std::vector<std::string> scopes;
  std::chrono::milliseconds interval{0};
  bool descending = false;
  std::function<void()> update, finish;
  int starts = 0, stops = 0;
  std::vector<platform::MetadataItem> items;

 private:
  bool finishOnStart_;
};

// A test whose machine is a fresh folder: every location lies under it (as with `--root`) for
// the test's lifetime.
class RootedTest : public ::testing::Test {
 protected:
  RootedTest();
  ~RootedTest() override;

  // A desktop entry `id` in `folder` (below the root) that runs `exec`.
  void desktopEntry(const std::string& id, const std::string& name, const std::string& exec,
                    const std::string& folder = "usr/share/applications");
  // An executable file at `path` below the root.
  void program(const std::string& path, const std::string& content = "#!/bin/sh\n");

  TempDir tmp_;
  platform::Locations locations_;
};

}  // namespace testsupport
