#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/Admin.h"

extern char** environ;

namespace platform {

namespace {

class PkexecAdminRunner final : public AdminRunner {
 public:
  std::optional<std::string> runAsRoot(
      const std::string& script, const std::map<std::string, std::string>& environment) override {
    std::vector<std::string> arguments;
    if (::geteuid() != 0) arguments.push_back("/usr/bin/pkexec");
    arguments.push_back("/usr/bin/env");
    for (const auto& [name, value] : environment) arguments.push_back(name + "=" + value);
    arguments.insert(arguments.end(), {"/bin/sh", "-c", script});
    std::vector<char*> argv;
    for (auto& a : arguments) argv.push_back(a.data());
    argv.push_back(nullptr);

    int errors[2];
    if (::pipe2(errors, O_CLOEXEC) != 0)
      return std::string("cannot make a pipe: ") + std::strerror(errno);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
    pid_t child = 0;
    int spawned = ::posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(errors[1]);
    if (spawned != 0) {
      ::close(errors[0]);
      return std::string("cannot run ") + argv[0] + ": " + std::strerror(spawned);
    }
    std::string message;
    char buffer[4096];
    for (;;) {
      ssize_t n = ::read(errors[0], buffer, sizeof(buffer));
      if (n > 0) {
        if (message.size() < 65536) message.append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        break;
      }
    }
    ::close(errors[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return std::nullopt;
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) {
      message.pop_back();
    }
    if (message.empty()) {
      // pkexec exits 126 when the user dismissed the dialog, 127 when not authorised.
      message = WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                                  : "ended by signal " + std::to_string(WTERMSIG(status));
    }
    return message;
  }
};

std::mutex& runnerMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

std::shared_ptr<AdminRunner>& runnerSlot() {
  static auto* slot = new std::shared_ptr<AdminRunner>(std::make_shared<PkexecAdminRunner>());
  return *slot;
}

}  // namespace

AdminRunner& adminRunner() {
  std::lock_guard lock(runnerMutex());
  return *runnerSlot();
}

void setAdminRunner(std::shared_ptr<AdminRunner> runner) {
  std::lock_guard lock(runnerMutex());
  runnerSlot() = runner ? std::move(runner) : std::make_shared<PkexecAdminRunner>();
}

}  // namespace platform
