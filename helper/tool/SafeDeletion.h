#pragma once

// What the privileged helper does with a path it is asked to delete. It runs as root on behalf
// of an unprivileged program, so every path is hostile: `refusal` decides whether a path may be
// touched at all, and `deleteTree` deletes what may, by descriptors only, so that a folder
// swapped for a link while the helper works can never redirect it.

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace helper {

// Where the helper may delete for the one user it serves: what a clean-up deletes and nothing
// else. Paths strictly below one of `places` may go, unless they lie in an `excluded` folder,
// lead to one, or lie in the home of another person.
struct CleanupPlaces {
  // The served user's home, the system's caches, logs, crash reports and lasting temporary
  // files, the folders where programs are installed by hand, and the user's trash folders on
  // other file systems.
  std::vector<std::string> places;
  // The helper's own folder: never deleted, nor anything that holds it.
  std::vector<std::string> excluded;
  // The homes of the other people of this machine.
  std::vector<std::string> otherHomes;
  // Mount points: a file system's root is never deleted from here.
  std::set<std::string> mountPoints;
};

// The system's places in every `CleanupPlaces`, and the helper's own folder.
inline const std::vector<std::string> kSystemCleanupPlaces = {
    "/var/cache", "/var/log", "/var/crash", "/var/tmp", "/opt", "/usr/local"};
inline constexpr char kHelperFolder[] = "/usr/local/libexec/ravelin";

// The places for user `served`, read from the password database and the mounts of the running
// system. `home` replaces the database's home folder when set (a test's own folder). A home of
// fewer than two components ("/", "/root", "/nonexistent") is no place.
CleanupPlaces cleanupPlacesFor(uid_t served, const std::string& home = "");

// Why `path` is refused, or nothing when it may be deleted. Refused: a path holding a NUL byte, a
// relative path, one with an empty, "." or ".." component, anything not strictly below one of
// the places, in or above an excluded folder, in another person's home, and mount points.
std::optional<std::string> refusal(const std::string& path, const CleanupPlaces& places);

// Called between entries; true while the work may go on. It may block while the work is paused.
using Gate = std::function<bool()>;

// Deletes `path` (a file, a link or a whole folder) as `platform::deleteTree` does, with no
// symbolic link allowed anywhere above it: root follows nobody's links. True when `path` no
// longer exists. `gate` is asked between entries; when it says stop, what is left stays and the
// answer is false.
bool deleteTree(const std::string& path, const Gate& gate);

}  // namespace helper
