#pragma once

// What the privileged helper does with a path it is asked to delete. It runs as root on behalf
// of an unprivileged program, so every path is hostile: `refusal` decides whether a path may be
// touched at all, and `deleteTree` deletes what may, by descriptors only, so that a folder
// swapped for a link while the helper works can never redirect it.

#include <atomic>
#include <functional>
#include <optional>
#include <set>
#include <string>

namespace helper {

// Why `path` is refused, or nothing when it may be deleted. Refused: a relative path, one with an
// empty, "." or ".." component, "/" itself and every top-level folder ("/etc", "/home", "/tmp"),
// anything under "/proc", "/sys", "/dev" and "/run", and the mount points in `mountPoints`.
std::optional<std::string> refusal(const std::string& path,
                                   const std::set<std::string>& mountPoints);

// The mount points of the running system, from /proc/self/mountinfo.
std::set<std::string> currentMountPoints();

// Called between entries; true while the work may go on. It may block while the work is paused.
using Gate = std::function<bool()>;

// Deletes `path` (a file, a link or a whole folder) without following any symbolic link: the
// parent folders are opened one component at a time from "/" with O_NOFOLLOW, the tree is
// walked with openat and emptied with unlinkat relative to each folder's descriptor, and a folder
// on another file system than the one asked for is not entered (its mount point stays, and the
// path counts as failed). True when `path` no longer exists. `gate` is asked between entries; when
// it says stop, what is left stays and the answer is false.
bool deleteTree(const std::string& path, const Gate& gate);

}  // namespace helper
