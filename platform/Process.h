#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

struct ProcessOutput {
  std::string standardOutput;
  // The exit status when the program exited; 128 + the signal number when a signal ended it.
  int exitStatus = 0;
};

// Runs programs by absolute path. Only standard output is read; standard input is empty and
// standard error is discarded.
class ProcessRunner {
 public:
  virtual ~ProcessRunner() = default;

  // Runs `path` with `arguments` (not including the program name), reads its standard output to
  // the end and waits for it. Gives nothing when `path` isn't absolute or the program can't be
  // started.
  virtual std::optional<ProcessOutput> run(const std::string& path,
                                           const std::vector<std::string>& arguments) = 0;
};

// The runner that starts real processes.
std::unique_ptr<ProcessRunner> makeProcessRunner();

}  // namespace platform
