#include "platform/Locations.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>

#include "platform/Files.h"
#include "platform/SystemRoots.h"
#include "platform/Text.h"

namespace platform {

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string homeFromPasswordDatabase() {
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  struct passwd entry;
  struct passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir) {
    return found->pw_dir;
  }
  return "/";
}

// An XDG base directory: the variable when it holds an absolute path, else the default.
std::string xdgDirectory(const char* variable, const std::string& fallback) {
  std::string value = environment(variable);
  return !value.empty() && value.front() == '/' ? value : fallback;
}

std::vector<std::string> splitPaths(const std::string& list) {
  std::vector<std::string> paths;
  std::stringstream stream(list);
  std::string item;
  while (std::getline(stream, item, ':')) {
    if (!item.empty() && item.front() == '/') paths.push_back(item);
  }
  return paths;
}

void appendUnique(std::vector<std::string>& list, std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (std::find(list.begin(), list.end(), path) == list.end()) list.push_back(std::move(path));
}

// mountinfo writes space, tab, newline and backslash in paths as three octal digits ("\040").
std::string decodeMountPath(std::string_view field) {
  auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
  std::string path;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) &&
        isOctal(field[i + 2]) && isOctal(field[i + 3])) {
      path.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                       (field[i + 3] - '0')));
      i += 3;
    } else {
      path.push_back(field[i]);
    }
  }
  return path;
}

bool isPseudoFileSystem(const MountPoint& mount) {
  static const std::set<std::string> kPseudo = {
      "proc",       "sysfs",      "devtmpfs",  "devpts",  "cgroup",      "cgroup2",
      "pstore",     "securityfs", "debugfs",   "tracefs", "configfs",    "fusectl",
      "mqueue",     "hugetlbfs",  "bpf",       "autofs",  "binfmt_misc", "nsfs",
      "rpc_pipefs", "efivarfs",   "selinuxfs", "ramfs",   "squashfs"};
  if (kPseudo.count(mount.type)) return true;
  for (const char* prefix : {"/proc", "/sys", "/dev", "/run"}) {
    std::string p = prefix;
    if (mount.path == p || mount.path.rfind(p + "/", 0) == 0) return true;
  }
  return false;
}

}  // namespace

std::vector<MountPoint> parseMountInfo(std::string_view text) {
  std::vector<MountPoint> mounts;
  forEachLine(text, [&](std::string_view line) {
    // id parent major:minor root mount-point options [optional fields] - type source options
    std::vector<std::string_view> fields;
    std::size_t pos = 0;
    while (pos < line.size()) {
      std::size_t space = line.find(' ', pos);
      if (space == std::string_view::npos) space = line.size();
      if (space > pos) fields.push_back(line.substr(pos, space - pos));
      pos = space + 1;
    }
    auto separator = std::find(fields.begin(), fields.end(), "-");
    if (fields.size() < 5 || separator == fields.end() || separator - fields.begin() < 6 ||
        separator + 1 == fields.end()) {
      return;
    }
    std::string source = separator + 2 < fields.end() ? std::string(*(separator + 2)) : "";
    mounts.push_back(MountPoint{decodeMountPath(fields[4]), std::string(*(separator + 1)),
                                std::string(fields[2]), decodeMountPath(source)});
  });
  return mounts;
}

std::vector<std::string> mountTrashFolders(const std::vector<MountPoint>& mounts, unsigned uid) {
  std::vector<std::string> folders;
  for (const auto& mount : mounts) {
    if (isPseudoFileSystem(mount)) continue;
    std::string shared = joinPath(mount.path, ".Trash");
    auto status = fileStatus(shared, Follow::no);
    if (status.ok() && status->type == FileType::directory && (status->mode & S_ISVTX)) {
      std::string files = joinPath(joinPath(shared, std::to_string(uid)), "files");
      if (isDirectory(files)) appendUnique(folders, files);
    }
    std::string own = joinPath(joinPath(mount.path, ".Trash-" + std::to_string(uid)), "files");
    if (isDirectory(own)) appendUnique(folders, own);
  }
  return folders;
}

std::string underRootPath(const std::string& root, const std::string& path) {
  if (root.empty() || root == "/") return path;
  std::string base = root;
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  if (auto resolved = resolveInRoot(base, path)) return *resolved;
  // A loop of links: a path below the root that names nothing.
  return joinPath(base, ".loop-of-links");
}

Locations Locations::fromEnvironment() {
  Locations l;
  l.home = environment("HOME");
  if (l.home.empty() || l.home.front() != '/') l.home = homeFromPasswordDatabase();
  while (l.home.size() > 1 && l.home.back() == '/') l.home.pop_back();

  l.library = xdgDirectory("XDG_DATA_HOME", joinPath(l.home, ".local/share"));
  l.configHome = xdgDirectory("XDG_CONFIG_HOME", joinPath(l.home, ".config"));
  l.cacheHome = xdgDirectory("XDG_CACHE_HOME", joinPath(l.home, ".cache"));
  l.temporary = "/tmp";
  l.systemCaches = "/var/cache";
  l.systemLogs = "/var/log";
  l.crashReports = "/var/crash";

  l.trashes.push_back(joinPath(l.library, "Trash/files"));
  std::string mountinfo = readSmallFile("/proc/self/mountinfo").value_or("");
  for (auto& folder : mountTrashFolders(parseMountInfo(mountinfo), ::getuid())) {
    appendUnique(l.trashes, folder);
  }

  appendUnique(l.applications, joinPath(l.library, "applications"));
  std::string dataDirs = environment("XDG_DATA_DIRS");
  if (dataDirs.empty()) dataDirs = "/usr/local/share:/usr/share";
  for (const auto& dir : splitPaths(dataDirs)) {
    appendUnique(l.applications, joinPath(dir, "applications"));
  }
  // Flatpak and snap add these to XDG_DATA_DIRS in a login session; a shell started otherwise
  // may not have them.
  appendUnique(l.applications, joinPath(l.library, "flatpak/exports/share/applications"));
  appendUnique(l.applications, "/var/lib/flatpak/exports/share/applications");
  appendUnique(l.applications, "/var/lib/snapd/desktop/applications");

  l.flatpakAppData = joinPath(l.home, ".var/app");
  l.flatpakInstallations = {joinPath(l.library, "flatpak"), "/var/lib/flatpak"};
  l.snapMounts = "/snap";
  l.autostart = {joinPath(l.configHome, "autostart")};
  std::string configDirs = environment("XDG_CONFIG_DIRS");
  if (configDirs.empty()) configDirs = "/etc/xdg";
  for (const auto& dir : splitPaths(configDirs))
    appendUnique(l.autostart, joinPath(dir, "autostart"));
  l.userUnits = joinPath(l.configHome, "systemd/user");
  l.globalUserUnits = "/etc/systemd/user";
  l.systemUnits = "/etc/systemd/system";
  l.userUnitFolders = {l.userUnits, joinPath(l.library, "systemd/user")};
  l.globalUnitFolders = {l.globalUserUnits, "/usr/local/lib/systemd/user", "/lib/systemd/user",
                         "/usr/lib/systemd/user"};
  l.systemUnitFolders = {l.systemUnits, "/usr/local/lib/systemd/system", "/lib/systemd/system",
                         "/usr/lib/systemd/system"};
  l.packages = "/var/lib/dpkg";
  std::string path = environment("PATH");
  if (path.empty()) path = "/usr/local/bin:/usr/bin:/bin:/usr/local/games:/usr/games";
  for (const auto& dir : splitPaths(path)) appendUnique(l.commandFolders, dir);
  // Programs installed for the user alone, and the system's own folders, count even when this
  // process was started with a short PATH.
  for (const auto& dir : {joinPath(l.home, ".local/bin"), std::string("/usr/local/sbin"),
                          std::string("/usr/local/bin"), std::string("/usr/sbin"),
                          std::string("/usr/bin"), std::string("/sbin"), std::string("/bin"),
                          std::string("/usr/games"), std::string("/snap/bin")}) {
    appendUnique(l.commandFolders, dir);
  }
  return l;
}

Locations Locations::fromEnvironment(const std::string& root) {
  Locations l = fromEnvironment();
  if (root.empty()) return l;
  auto put = [&](std::string& path) { path = underRootPath(root, path); };
  for (auto* path :
       {&l.home, &l.library, &l.configHome, &l.cacheHome, &l.temporary, &l.systemCaches,
        &l.systemLogs, &l.crashReports, &l.flatpakAppData, &l.snapMounts, &l.userUnits,
        &l.globalUserUnits, &l.systemUnits, &l.packages}) {
    put(*path);
  }
  // Each location is the path the system below the root gives it, resolved there: a home that
  // is a link, or a HOME with "..", never leads out of the root.
  l.trashes = {underRootPath(root, joinPath(Locations::fromEnvironment().library, "Trash/files"))};
  for (auto* list : {&l.applications, &l.flatpakInstallations, &l.commandFolders, &l.autostart,
                     &l.userUnitFolders, &l.globalUnitFolders, &l.systemUnitFolders}) {
    for (auto& path : *list) put(path);
  }
  l.root = underRootPath(root, "/");
  return l;
}

Locations Locations::underRoot(const std::string& root) {
  Locations l;
  l.home = joinPath(root, "home");
  l.library = joinPath(l.home, ".local/share");
  l.configHome = joinPath(l.home, ".config");
  l.cacheHome = joinPath(l.home, ".cache");
  l.temporary = joinPath(root, "tmp");
  l.systemCaches = joinPath(root, "var/cache");
  l.systemLogs = joinPath(root, "var/log");
  l.crashReports = joinPath(root, "var/crash");
  l.trashes = {joinPath(l.library, "Trash/files")};
  l.flatpakInstallations = {joinPath(l.library, "flatpak"), joinPath(root, "var/lib/flatpak")};
  l.applications = {joinPath(l.library, "applications"), joinPath(root, "usr/share/applications"),
                    joinPath(l.flatpakInstallations[0], "exports/share/applications"),
                    joinPath(l.flatpakInstallations[1], "exports/share/applications"),
                    joinPath(root, "var/lib/snapd/desktop/applications")};
  l.flatpakAppData = joinPath(l.home, ".var/app");
  l.snapMounts = joinPath(root, "snap");
  l.autostart = {joinPath(l.configHome, "autostart"), joinPath(root, "etc/xdg/autostart")};
  l.userUnits = joinPath(l.configHome, "systemd/user");
  l.globalUserUnits = joinPath(root, "etc/systemd/user");
  l.systemUnits = joinPath(root, "etc/systemd/system");
  l.userUnitFolders = {l.userUnits, joinPath(l.library, "systemd/user")};
  l.globalUnitFolders = {l.globalUserUnits, joinPath(root, "lib/systemd/user"),
                         joinPath(root, "usr/lib/systemd/user")};
  l.systemUnitFolders = {l.systemUnits, joinPath(root, "lib/systemd/system"),
                         joinPath(root, "usr/lib/systemd/system")};
  l.packages = joinPath(root, "var/lib/dpkg");
  l.commandFolders = {joinPath(l.home, ".local/bin"), joinPath(root, "usr/local/bin"),
                      joinPath(root, "usr/bin"), joinPath(root, "bin"), joinPath(root, "snap/bin")};
  l.root = root;
  return l;
}

namespace {

struct CurrentLocations {
  std::mutex mutex;
  std::shared_ptr<const Locations> value;
};

CurrentLocations& current() {
  static auto* state = new CurrentLocations;
  return *state;
}

}  // namespace

const Locations& currentLocations() {
  auto& state = current();
  std::lock_guard lock(state.mutex);
  if (!state.value) state.value = std::make_shared<const Locations>(Locations::fromEnvironment());
  return *state.value;
}

void setCurrentLocations(Locations locations) {
  auto& state = current();
  std::lock_guard lock(state.mutex);
  // Earlier values stay alive: callers may still hold references into them.
  static auto* retired = new std::vector<std::shared_ptr<const Locations>>;
  if (state.value) retired->push_back(state.value);
  state.value = std::make_shared<const Locations>(std::move(locations));
}

std::string passwordHome() { return homeFromPasswordDatabase(); }

std::optional<std::string> confinedPath(const std::string& path, Follow follow) {
  std::string root = currentLocations().root;
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (root.empty() || root == "/") return path;
  if (path != root && !path.starts_with(root + "/")) return std::nullopt;
  return resolveInRoot(root, path.substr(root.size()), follow);
}

Result<std::vector<DirectoryEntry>> listDirectoryConfined(const std::string& folder) {
  const std::string& root = currentLocations().root;
  if (root.empty() || root == "/") return listDirectory(folder, Follow::yes);
  auto confined = confinedPath(folder);
  if (!confined) return Error{ENOENT};
  auto entries = listDirectory(*confined, Follow::no);
  if (!entries.ok()) return entries;
  for (auto& entry : *entries) {
    if (entry.type != FileType::symbolicLink) continue;
    auto target = confinedPath(joinPath(*confined, entry.name));
    if (!target) continue;
    auto status = fileStatus(*target, Follow::no);
    if (!status.ok()) continue;  // a link to nothing stays a link
    entry.type = status->type;
    entry.fileSize = status->size;
    entry.modified = status->modified;
  }
  return entries;
}

}  // namespace platform
