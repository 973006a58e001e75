#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Where things are on this machine: the home folder, the user's library, caches, logs, trash and
// application folders. Code that needs a location takes it from a `Locations` value, never from a
// literal path, so that tests can run the same code against a tree under a temporary folder.
struct Locations {
  std::string home;          // the user's home folder
  std::string library;       // the user's data folder ($XDG_DATA_HOME), "Lib" in rule paths
  std::string configHome;    // $XDG_CONFIG_HOME
  std::string cacheHome;     // $XDG_CACHE_HOME
  std::string temporary;     // "/tmp" itself, "Tmp" in rule paths
  std::string systemCaches;  // caches of the system
  std::string systemLogs;    // logs of the system
  // Folders whose entries are trashed items: the home trash first, then the trash folders of
  // other mounted file systems that exist.
  std::vector<std::string> trashes;
  // Folders of desktop entries, most important first.
  std::vector<std::string> applications;

  // Reads HOME and the XDG variables as every program of the desktop does, falling back to the
  // password database and the XDG defaults.
  static Locations fromEnvironment();

  // Every location under `root`: home is `root/home`, the system folders are `root/var/...`,
  // and so on. Nothing is created.
  static Locations underRoot(const std::string& root);
};

// The locations that process-wide objects use: `fromEnvironment()` until a host or a test sets
// others. Set them before any scan starts.
const Locations& currentLocations();
void setCurrentLocations(Locations locations);

struct MountPoint {
  std::string path;
  std::string type;
  std::string device;  // "major:minor" of the mounted device
  std::string source;  // what was mounted, such as "/dev/sda2"
};

// The mounts listed in a mountinfo text (as /proc/self/mountinfo gives it), with the octal
// escapes of their paths decoded. Malformed lines are skipped.
std::vector<MountPoint> parseMountInfo(std::string_view text);

// The trash folders of the freedesktop trash on `mounts` that exist for user `uid`:
// "$top/.Trash/$uid/files" when "$top/.Trash" is a real folder with the sticky bit, and
// "$top/.Trash-$uid/files". Pseudo file systems are passed over.
std::vector<std::string> mountTrashFolders(const std::vector<MountPoint>& mounts, unsigned uid);

}  // namespace platform
