#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Process.h"

extern char** environ;

namespace platform {

namespace {

// Closes a descriptor when it goes out of scope, on every way out.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

class LinuxProcessRunner final : public ProcessRunner {
 public:
  std::optional<ProcessOutput> run(const std::string& path,
                                   const std::vector<std::string>& arguments) override {
    if (path.empty() || path.front() != '/') return std::nullopt;

    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return std::nullopt;
    FileDescriptor readEnd(fds[0]);
    FileDescriptor writeEnd(fds[1]);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

    // The child starts with default signal handling even if the host ignores SIGPIPE or SIGINT.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    pid_t pid = 0;
    int spawned = ::posix_spawn(&pid, path.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    writeEnd.reset();
    // glibc reports a program that can't be executed through the return value.
    if (spawned != 0) return std::nullopt;

    ProcessOutput output;
    char buffer[65536];
    for (;;) {
      ssize_t n = ::read(readEnd.get(), buffer, sizeof(buffer));
      if (n > 0) {
        output.standardOutput.append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        break;
      }
    }
    readEnd.reset();

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) return std::nullopt;
    }
    if (WIFEXITED(status)) {
      output.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
      output.exitStatus = 128 + WTERMSIG(status);
    }
    return output;
  }
};

}  // namespace

std::unique_ptr<ProcessRunner> makeProcessRunner() {
  return std::make_unique<LinuxProcessRunner>();
}

}  // namespace platform
