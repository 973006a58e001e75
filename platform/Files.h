#pragma once

// Directory listings and file status over the file system. Nothing here follows a symbolic link
// unless the caller passes `Follow::yes`; failures come back as values.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
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
  std::int64_t modified = 0;  // seconds since 1970; 0 when the status couldn't be read

  bool isDirectory() const { return type == FileType::directory; }
};

// Lists `path` without "." and "..", in the order the file system gives. Entries that vanish
// while being listed are left out. With `Follow::no`, a `path` that is a symbolic link fails with
// ENOTDIR and entries that are links are reported as links.
Result<std::vector<DirectoryEntry>> listDirectory(const std::string& path,
                                                  Follow follow = Follow::no);

Result<FileStatus> fileStatus(const std::string& path, Follow follow = Follow::no);

// The content of the regular file at `path`, read without ever blocking: a pipe or a device
// put where a file is expected fails (EINVAL) instead of hanging the reader, and so does a file
// larger than `maxBytes` (EFBIG). Links are followed unless `follow` says not to.
Result<std::string> readRegularFile(const std::string& path, std::size_t maxBytes,
                                    Follow follow = Follow::yes);

// The identifier of the mount that `name` (relative to the open folder `folder`, or a path with
// AT_FDCWD; "" for `folder` itself) belongs to, without following a link: a bind mount of the
// same file system has one of its own though it shares the device. 0 when the kernel can't tell.
std::uint64_t mountIdentifier(int folder, const char* name);

namespace detail {
// Makes `mountIdentifier` answer 0 as on kernels before 5.8, which don't tell mount ids; for
// tests of the code that must then fall back to devices.
void setMountIdentifiersUnavailable(bool unavailable);
}  // namespace detail

// Whether `path` lies on a file system mounted read-only (an immutable system image, say). False
// when it can't be told.
bool isOnReadOnlyMount(const std::string& path);

// `path`, an absolute path as the system below the folder `root` names it, resolved the way a
// process whose root folder is `root` would resolve it (openat2's RESOLVE_IN_ROOT where the
// kernel has it): ".." stops at `root`, and every link, absolute or relative, is followed inside
// it. The answer is a path below `root` (or `root` itself) with no link among its folders, nor
// as its last component unless `follow` is no. Components that don't exist are kept as written,
// a ".." among them taken in the text. Nothing for a loop of links. An empty `root` is "/".
std::optional<std::string> resolveInRoot(const std::string& root, const std::string& path,
                                         Follow follow = Follow::yes);

namespace detail {
// Makes `resolveInRoot` do without openat2, as on kernels before 5.6; for tests of the walk
// that stands in for it.
void setOpenat2Unavailable(bool unavailable);
}  // namespace detail

bool fileExists(const std::string& path, Follow follow = Follow::no);
bool isDirectory(const std::string& path, Follow follow = Follow::no);

// The names of `path` between its slashes, empty ones left out: "/a//b/" is {"a", "b"}.
std::vector<std::string> pathComponents(std::string_view path);

// `base` and `name` joined by one slash.
std::string joinPath(const std::string& base, const std::string& name);

// The last component of `path` ("" for "/"), and everything before it ("/" for top-level
// entries, "" when there is no slash).
std::string lastPathComponent(const std::string& path);
std::string deletingLastPathComponent(const std::string& path);

}  // namespace platform
