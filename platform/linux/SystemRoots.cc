#include "platform/SystemRoots.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace platform {

namespace {

SystemRoots& mutableRoots() {
  static auto* roots = new SystemRoots;
  return *roots;
}

std::mutex& rootsMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

}  // namespace

SystemRoots systemRoots() {
  std::lock_guard lock(rootsMutex());
  return mutableRoots();
}

void setSystemRoots(SystemRoots roots) {
  std::lock_guard lock(rootsMutex());
  mutableRoots() = std::move(roots);
}

std::optional<std::string> readSmallFile(const std::string& path) {
  // Plain reads: these files are polled, and a stream costs more than the read itself.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string content;
  char buffer[4096];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n > 0) {
      content.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      ::close(fd);
      if (n < 0) return std::nullopt;
      return content;
    }
  }
}

}  // namespace platform
