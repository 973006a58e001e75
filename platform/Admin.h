#pragma once

// Running a shell script as root after the user's consent, as the installer of the privileged
// helper needs. On Linux: `pkexec` (polkit asks for an administrator's password) running
// `/usr/bin/env NAME=VALUE ... /bin/sh -c SCRIPT`; a process that already runs as root runs the
// same without asking. Values travel as arguments of env, never spliced into the script.

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace platform {

class AdminRunner {
 public:
  virtual ~AdminRunner() = default;
  // Runs `script` with `environment` added; blocks until it has ended. Nothing on success, else
  // the error message (what the script wrote on standard error, or why it couldn't run).
  virtual std::optional<std::string> runAsRoot(
      const std::string& script, const std::map<std::string, std::string>& environment) = 0;
};

// The process-wide runner: pkexec's unless a test installed another.
AdminRunner& adminRunner();
void setAdminRunner(std::shared_ptr<AdminRunner> runner);

}  // namespace platform
