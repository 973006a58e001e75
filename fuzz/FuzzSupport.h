#pragma once

// What the fuzz targets share: a scratch folder in memory, written once per input, and the
// check that nothing escapes a reader.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// A folder of this process under /dev/shm (else the temporary folder), made on first use.
inline const std::string& scratch() {
  // Never destroyed: the removal at exit runs after static destructors may have.
  static const std::string* path = [] {
    std::filesystem::path base = std::filesystem::exists("/dev/shm")
                                     ? std::filesystem::path("/dev/shm")
                                     : std::filesystem::temp_directory_path();
    auto folder = base / ("ravelin-fuzz-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    auto* text = new std::string(folder.string());
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(scratch(), ignored);
    });
    return text;
  }();
  return *path;
}

// Writes `bytes` to `relative` below the scratch folder (parents made) and gives the path.
inline std::string put(const std::string& relative, std::string_view bytes) {
  std::filesystem::path path = std::filesystem::path(scratch()) / relative;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<long>(bytes.size()));
  return path.string();
}

// Splits an input into `n` parts at the byte 0x00 (the last part takes the rest).
inline std::vector<std::string_view> parts(std::string_view input, std::size_t n) {
  std::vector<std::string_view> out;
  while (out.size() + 1 < n) {
    std::size_t end = input.find('\0');
    if (end == std::string_view::npos) break;
    out.push_back(input.substr(0, end));
    input.remove_prefix(end + 1);
  }
  out.push_back(input);
  while (out.size() < n) out.emplace_back();
  return out;
}

// A property that a reader's result must have; a fuzzer reports the abort as a crash.
inline void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace fuzz
