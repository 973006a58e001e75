#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Files.h"

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
  std::string crashReports;  // crash reports of the system
  // Folders whose entries are trashed items: the home trash first, then the trash folders of
  // other mounted file systems that exist.
  std::vector<std::string> trashes;
  // Folders of desktop entries, most important first.
  std::vector<std::string> applications;
  // Flatpak's per-application data folders of the user (~/.var/app).
  std::string flatpakAppData;
  // Flatpak installations, the user's first: each holds "app/ID" for the installed applications
  // and "exports/share/applications" for their desktop entries.
  std::vector<std::string> flatpakInstallations;
  // Where snaps are mounted, one folder per installed snap (/snap).
  std::string snapMounts;
  // Autostart folders of the desktop, the user's first ($XDG_CONFIG_HOME/autostart, then each
  // of $XDG_CONFIG_DIRS, /etc/xdg by default).
  std::vector<std::string> autostart;
  // Unit folders of systemd: the user's own units, the units every user runs, the system's.
  std::string userUnits;
  std::string globalUserUnits;
  std::string systemUnits;
  // Every folder a unit of each domain is read from, in systemd's order of precedence: the one
  // above first, then the packages' folders (/lib/systemd/system, /usr/lib/systemd/system, ...).
  std::vector<std::string> userUnitFolders;
  std::vector<std::string> globalUnitFolders;
  std::vector<std::string> systemUnitFolders;
  // dpkg's database: "status" lists the installed packages, "info/NAME.list" their files.
  std::string packages;
  // The folders searched for a command, as PATH lists them.
  std::vector<std::string> commandFolders;
  // The folder every location was put under ("" for the machine's own): absolute paths read
  // from files (a desktop entry's program, say) are taken below it too.
  std::string root;

  // Reads HOME and the XDG variables as every program of the desktop does, falling back to the
  // password database and the XDG defaults.
  static Locations fromEnvironment();

  // The locations the program would use without a root, each with `root` in front: with HOME
  // /home/alice, home is "root/home/alice" and the system caches "root/var/cache". So a mounted
  // disk or a container image is seen as its own machine would see it. Trash folders of other
  // mounts are the machine's, not the root's, and are left out. An empty root is
  // `fromEnvironment()`.
  static Locations fromEnvironment(const std::string& root);

  // Every location under `root`, for fixture trees: home is `root/home`, the system folders are
  // `root/var/...`, and so on. Nothing is created.
  static Locations underRoot(const std::string& root);
};

// The home folder that the password database gives this process's user, whatever HOME says;
// "/" when it gives none.
std::string passwordHome();

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

// `path` (absolute) as seen below `root`: "/var/lib/x" under "/mnt/disk" is "/mnt/disk/var/lib/x",
// resolved inside the root (`resolveInRoot`): "..", and links absolute or relative, never lead
// out of it. An empty root gives `path` itself.
std::string underRootPath(const std::string& root, const std::string& path);

// `path`, a path of this machine, confined to the root of the current locations: below a root,
// the path `resolveInRoot` gives for the part of `path` below it; nothing for a path outside
// the root. Without a root, `path` itself. Whatever follows links reads this instead of `path`,
// following links as before (below a root none is left), so that nothing outside the root is
// read.
std::optional<std::string> confinedPath(const std::string& path, Follow follow = Follow::yes);

// The entries of `folder` with links followed, as `listDirectory(folder, Follow::yes)` gives
// them, each link followed only inside the root of the current locations.
Result<std::vector<DirectoryEntry>> listDirectoryConfined(const std::string& folder);

}  // namespace platform
