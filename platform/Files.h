#pragma once

// Directory listings and file status over the file system. Nothing here follows a symbolic link
// unless the caller passes `Follow::yes`; failures come back as values.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Result.h"

namespace platform {

enum class Follow { no, yes };

enum class FileType { regular, directory, symbolicLink, other };

struct FileStatus {
  FileType type = FileType::other;
  std::int64_t size = 0;           // st_size
  std::int64_t allocatedSize = 0;  // blocks on disk, in bytes
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t linkCount = 0;
  std::uint32_t mode = 0;     // permission bits and file type, as st_mode
  std::uint32_t owner = 0;    // user id
  std::int64_t modified = 0;  // seconds since 1970
};

// One entry of a listing with the resource values scanners ask for.
struct DirectoryEntry {
  std::string name;
  FileType type = FileType::other;
  std::int64_t fileSize = 0;  // st_size; 0 when the entry's status couldn't be read

  bool isDirectory() const { return type == FileType::directory; }
};

// Lists `path` without "." and "..", in the order the file system gives. Entries that vanish
// while being listed are left out. With `Follow::no`, a `path` that is a symbolic link fails with
// ENOTDIR and entries that are links are reported as links.
Result<std::vector<DirectoryEntry>> listDirectory(const std::string& path,
                                                  Follow follow = Follow::no);

Result<FileStatus> fileStatus(const std::string& path, Follow follow = Follow::no);

bool fileExists(const std::string& path, Follow follow = Follow::no);
bool isDirectory(const std::string& path, Follow follow = Follow::no);

// `base` and `name` joined by one slash.
std::string joinPath(const std::string& base, const std::string& name);

// The last component of `path` ("" for "/"), and everything before it ("/" for top-level
// entries, "" when there is no slash).
std::string lastPathComponent(const std::string& path);
std::string deletingLastPathComponent(const std::string& path);

}  // namespace platform
