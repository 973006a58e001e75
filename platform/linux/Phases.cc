#include "platform/Phases.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace platform {

namespace {

bool enabled() {
  static const bool on = std::getenv("RAVELIN_PHASES") != nullptr;
  return on;
}

std::mutex mutex;
std::chrono::steady_clock::time_point phaseStart = std::chrono::steady_clock::now();

// The "VmHWM" (peak) and "VmRSS" lines of /proc/self/status, in kB.
void residentMemory(long& peak, long& now) {
  peak = now = -1;
  FILE* status = std::fopen("/proc/self/status", "re");
  if (status == nullptr) return;
  char line[256];
  while (std::fgets(line, sizeof(line), status) != nullptr) {
    if (std::strncmp(line, "VmHWM:", 6) == 0) peak = std::atol(line + 6);
    if (std::strncmp(line, "VmRSS:", 6) == 0) now = std::atol(line + 6);
  }
  std::fclose(status);
}

// Sets the peak back to what is resident now ("5" to clear_refs, Linux 4.0 and later).
void resetPeak() {
  int fd = ::open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;
  [[maybe_unused]] ssize_t written = ::write(fd, "5", 1);
  ::close(fd);
}

}  // namespace

void startPhases() {
  if (!enabled()) return;
  std::lock_guard lock(mutex);
  resetPeak();
  phaseStart = std::chrono::steady_clock::now();
}

void endPhase(const char* name) {
  if (!enabled()) return;
  std::lock_guard lock(mutex);
  auto end = std::chrono::steady_clock::now();
  long peak = 0, now = 0;
  residentMemory(peak, now);
  std::fprintf(stderr, "phase %-10s %8.2f s  peak %9.1f MB  after %9.1f MB\n", name,
               std::chrono::duration<double>(end - phaseStart).count(), peak / 1024.0,
               now / 1024.0);
  resetPeak();
  phaseStart = std::chrono::steady_clock::now();
}

}  // namespace platform
