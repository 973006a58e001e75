#include "testsupport/TestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

#include "platform/Dispatch.h"
#include "platform/Plist.h"

namespace testsupport {

namespace fs = std::filesystem;

TempDir::TempDir() : TempDir(fs::temp_directory_path().string()) {}

TempDir::TempDir(const std::string& base) {
  std::string pattern = (fs::path(base) / "ravelin-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    pattern = (fs::temp_directory_path() / "ravelin-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  path_ = pattern;
}

namespace {

// Removes everything below the open folder `fd`, relative to it, so that trees deeper than
// PATH_MAX go too. Folders made unreadable by a test are given back their permissions first.
void removeContents(int fd) {
  DIR* dir = ::fdopendir(::dup(fd));
  if (dir == nullptr) return;
  std::vector<std::string> names;
  while (struct dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  for (const auto& name : names) {
    struct stat st;
    if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode)) {
      ::fchmodat(fd, name.c_str(), 0700, 0);
      int child = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
      if (child >= 0) {
        removeContents(child);
        ::close(child);
      }
      ::unlinkat(fd, name.c_str(), AT_REMOVEDIR);
    } else {
      ::unlinkat(fd, name.c_str(), 0);
    }
  }
}

}  // namespace

TempDir::~TempDir() {
  ::chmod(path_.c_str(), 0700);
  int fd = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (fd >= 0) {
    removeContents(fd);
    ::close(fd);
  }
  ::rmdir(path_.c_str());
}

std::string TempDir::operator/(const std::string& relative) const {
  return (fs::path(path_) / relative).string();
}

std::string TempDir::write(const std::string& relative, const std::string& content) {
  fs::path full = fs::path(path_) / relative;
  fs::create_directories(full.parent_path());
  std::ofstream out(full, std::ios::binary);
  out << content;
  return full.string();
}

std::string TempDir::mkdir(const std::string& relative) {
  fs::path full = fs::path(path_) / relative;
  fs::create_directories(full);
  return full.string();
}

std::string TempDir::symlink(const std::string& relative, const std::string& target) {
  fs::path full = fs::path(path_) / relative;
  fs::create_directories(full.parent_path());
  fs::create_symlink(target, full);
  return full.string();
}

std::string TempDir::age(const std::string& relative, long seconds) {
  std::string full = (fs::path(path_) / relative).string();
  struct timespec times[2];
  times[0].tv_sec = times[1].tv_sec = ::time(nullptr) - seconds;
  times[0].tv_nsec = times[1].tv_nsec = 0;
  ::utimensat(AT_FDCWD, full.c_str(), times, AT_SYMLINK_NOFOLLOW);
  return full;
}

namespace {
void setVariable(const std::string& name, const std::optional<std::string>& value) {
  value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
}
}  // namespace

ScopedEnvironment::ScopedEnvironment(
    std::initializer_list<std::pair<std::string, std::optional<std::string>>> variables) {
  for (const auto& [name, value] : variables) {
    const char* old = std::getenv(name.c_str());
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    setVariable(name, value);
  }
}

ScopedEnvironment::~ScopedEnvironment() {
  for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) setVariable(it->first, it->second);
}

std::string macBundle(TempDir& tmp, const std::string& relative, const std::string& id,
                      std::optional<std::string> name, bool executable) {
  namespace plist = platform::plist;
  plist::Dictionary info{{"CFBundleIdentifier", id}, {"CFBundleExecutable", "main"}};
  if (name) info["CFBundleName"] = *name;
  tmp.write(relative + "/Contents/Info.plist", plist::serialize(info, plist::Format::xml));
  if (executable) tmp.write(relative + "/Contents/MacOS/main", "#!");
  return tmp / relative;
}

void withoutPermissionOverride(const std::function<void()>& body) {
  std::thread thread([&] {
    // Capabilities belong to each thread; dropping them here leaves the rest of the process as
    // it was.
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (::syscall(SYS_capget, &header, data) == 0) {
      data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
      ::syscall(SYS_capset, &header, data);
    }
    body();
  });
  thread.join();
}

AsUnprivilegedUser::AsUnprivilegedUser()
    : ok_(::geteuid() == 0 && ::setresgid(65534, 65534, 0) == 0 &&
          ::setresuid(65534, 65534, 0) == 0) {}

AsUnprivilegedUser::~AsUnprivilegedUser() {
  if (::setresuid(0, 0, 0) == 0) ::setresgid(0, 0, 0);
}

ChildProcess::ChildProcess(std::vector<std::string> argv, const std::string& waitFor) {
  std::vector<char*> pointers;
  for (auto& argument : argv) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::execv(pointers[0], pointers.data());
    ::_exit(127);
  }
  if (waitFor.empty()) return;
  // A socket's file appears when the server binds it, a moment before it listens: wait until a
  // connection is taken, not only for the file. A loaded machine may take seconds.
  auto ready = [&] {
    struct stat status {};
    if (::stat(waitFor.c_str(), &status) != 0) return false;
    if (!S_ISSOCK(status.st_mode)) return true;
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, waitFor.c_str(), sizeof(address.sun_path) - 1);
    bool taken = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return taken;
  };
  for (int i = 0; i < 1000 && !ready(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

ChildProcess::~ChildProcess() { kill(); }

namespace {

std::string readAll(int fd) {
  std::string text;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return text;  // the end, or EIO once a terminal's last writer is gone
    }
  }
}

}  // namespace

RunOutcome runProgram(std::vector<std::string> argv, const RunOptions& options) {
  std::vector<char*> cargs;
  for (auto& a : argv) cargs.push_back(a.data());
  cargs.push_back(nullptr);

  int outPipe[2], errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) return {};
  int terminal = -1;
  pid_t child;
  if (options.terminalWidth) {
    struct winsize size {};
    size.ws_row = 24;
    size.ws_col = *options.terminalWidth;
    child = ::forkpty(&terminal, nullptr, nullptr, &size);
  } else {
    child = ::fork();
  }
  if (child == 0) {
    if (!options.terminalWidth) {
      ::dup2(outPipe[1], STDOUT_FILENO);
      ::dup2(errPipe[1], STDERR_FILENO);
    }
    for (const auto& entry : options.environment) {
      if (entry.find('=') == std::string::npos) {
        ::unsetenv(entry.c_str());
      } else {
        ::putenv(const_cast<char*>(entry.c_str()));
      }
    }
    if (options.readOnly || !options.binds.empty()) {
      if (::unshare(CLONE_NEWNS) != 0 ||
          ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        ::_exit(125);
      }
      for (const auto& [source, target] : options.binds) {
        if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) ::_exit(125);
      }
    }
    if (options.readOnly) {
      const char* path = options.readOnly->c_str();
      if (::mount(path, path, nullptr, MS_BIND, nullptr) != 0 ||
          ::mount(nullptr, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        ::_exit(125);
      }
    }
    if (options.user) {
      if (::setgroups(0, nullptr) != 0 || ::setgid(*options.user) != 0 ||
          ::setuid(*options.user) != 0) {
        ::_exit(126);
      }
    }
    if (options.descriptors) {
      struct rlimit limit {};
      // Both limits: the program takes what the hard limit allows.
      limit.rlim_cur = limit.rlim_max = *options.descriptors;
      ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    ::execv(cargs[0], cargs.data());
    ::_exit(127);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  RunOutcome outcome;
  std::thread reader([&] {
    if (terminal >= 0) {
      outcome.out = readAll(terminal);
    } else {
      std::thread errors([&] { outcome.err = readAll(errPipe[0]); });
      outcome.out = readAll(outPipe[0]);
      errors.join();
    }
  });
  if (options.whileRunning) options.whileRunning(child);
  int status = 0;
  ::waitpid(child, &status, 0);
  reader.join();
  if (terminal >= 0) ::close(terminal);
  ::close(outPipe[0]);
  ::close(errPipe[0]);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

std::optional<int> inMountNamespace(const std::vector<Mount>& mounts,
                                    const std::function<int()>& body) {
  constexpr int kNoNamespace = 77;
  pid_t child = ::fork();
  if (child < 0) return std::nullopt;
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      ::_exit(kNoNamespace);
    }
    for (const auto& made : mounts) {
      const bool bind = made.type.empty();
      if (::mount(made.source.c_str(), made.target.c_str(), bind ? nullptr : made.type.c_str(),
                  bind ? MS_BIND : 0, made.data.empty() ? nullptr : made.data.c_str()) != 0) {
        ::_exit(kNoNamespace);
      }
    }
    ::_exit(body());
  }
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) == kNoNamespace) {
    return WIFSIGNALED(status) ? std::optional<int>(128 + WTERMSIG(status)) : std::nullopt;
  }
  return WEXITSTATUS(status);
}

void ChildProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::string randomBytes(std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(n, '\0');
  for (auto& b : bytes) b = static_cast<char>(random());
  return bytes;
}

FifoGuard::FifoGuard(std::string path, std::chrono::milliseconds timeout) : path_(std::move(path)) {
  if (::mkfifo(path_.c_str(), 0644) != 0) throw std::runtime_error("mkfifo " + path_);
  thread_ = std::thread([this, timeout] {
    std::unique_lock lock(mutex_);
    if (done_.wait_for(lock, timeout, [this] { return finished_; })) return;
    fired_.store(true);
    // Whatever waits for a writer gets one, and then the end of the stream.
    int fd = ::open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) ::close(fd);
  });
}

FifoGuard::~FifoGuard() {
  {
    std::lock_guard lock(mutex_);
    finished_ = true;
  }
  done_.notify_all();
  thread_.join();
}

bool drainMainUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left <= std::chrono::milliseconds(0)) return done();
    if (platform::runMainUntil(done, std::min(left, std::chrono::milliseconds(10)))) return true;
  }
}

void RecordingAnalytics::recordEvent(int event) {
  std::lock_guard lock(mutex_);
  events_.push_back({event, std::nullopt});
}

void RecordingAnalytics::recordEvent(int event,
                                     const std::map<std::string, std::string>& properties) {
  std::lock_guard lock(mutex_);
  events_.push_back({event, properties});
}

std::vector<RecordingAnalytics::Event> RecordingAnalytics::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

ScopedAnalyticsRecorder::ScopedAnalyticsRecorder()
    : recorder_(std::make_shared<RecordingAnalytics>()) {
  platform::setAnalytics(recorder_);
}

ScopedAnalyticsRecorder::~ScopedAnalyticsRecorder() { platform::setAnalytics(nullptr); }

void RecordingProcessRunner::answer(const std::string& path, platform::ProcessOutput output) {
  std::lock_guard lock(mutex_);
  answers_[path] = std::move(output);
}

std::optional<platform::ProcessOutput> RecordingProcessRunner::run(
    const std::string& path, const std::vector<std::string>& arguments) {
  std::lock_guard lock(mutex_);
  calls_.push_back({path, arguments});
  auto it = answers_.find(path);
  if (it == answers_.end()) return std::nullopt;
  return it->second;
}

std::vector<RecordingProcessRunner::Call> RecordingProcessRunner::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

int connectUnix(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    ::close(fd);
    return -1;
  }
  timeval limit{30, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  return fd;
}

std::string exchangeLine(int fd, const std::string& line) {
  ::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
  std::string answer;
  char buffer[256];
  while (answer.find('\n') == std::string::npos) {
    ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
    if (n <= 0) break;
    answer.append(buffer, static_cast<std::size_t>(n));
  }
  return answer;
}

bool helperAnswersPing(const std::string& socket) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    int fd = connectUnix(socket);
    std::string answer = fd >= 0 ? exchangeLine(fd, kHelperPing) : "";
    if (fd >= 0) ::close(fd);
    if (!answer.empty()) return answer == kHelperPong;
    if (fd < 0) {
      ::usleep(10000);  // nothing listens yet
    } else {
      std::this_thread::yield();
    }
  }
  return false;
}

void ScriptedQuery::startQuery() {
  ++starts;
  if (finishOnStart_) platform::DispatchQueue::main().async(finish);
}

RootedTest::RootedTest() : locations_(platform::Locations::underRoot(tmp_.path())) {
  platform::setCurrentLocations(locations_);
}

RootedTest::~RootedTest() { platform::setCurrentLocations(platform::Locations::fromEnvironment()); }

void RootedTest::desktopEntry(const std::string& id, const std::string& name,
                              const std::string& exec, const std::string& folder) {
  tmp_.write(folder + "/" + id + ".desktop",
             "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + exec + "\n");
}

void RootedTest::program(const std::string& path, const std::string& content) {
  ::chmod(tmp_.write(path, content).c_str(), 0755);
}

}  // namespace testsupport
