#pragma once

#include <optional>
#include <string>

namespace platform {

// Where the kernel's pseudo file systems are mounted. Readers of processor, memory, network,
// sensor and disk facts build their paths from these roots so that tests can point them at a
// fixture tree.
struct SystemRoots {
  std::string proc = "/proc";
  std::string sys = "/sys";
};

// The roots in force; `/proc` and `/sys` until a test sets others.
SystemRoots systemRoots();
void setSystemRoots(SystemRoots roots);

// The whole content of a small file, or nothing when it can't be read.
std::optional<std::string> readSmallFile(const std::string& path);

}  // namespace platform
