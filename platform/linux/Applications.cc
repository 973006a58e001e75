#include "platform/Applications.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <utility>

#include "platform/Files.h"

namespace platform {

namespace {

// Desktop files below `folder`, sorted, descending into subfolders as the XDG layout allows.
// Links are followed, since flatpak exports its entries as links, but a folder reached twice (a
// link to "." or to a parent) is entered once only, and only regular files count as entries.
void desktopFiles(const std::string& folder, std::vector<std::string>& out,
                  std::set<std::pair<std::uint64_t, std::uint64_t>>& entered, int depth = 0) {
  if (depth > 8) return;
  auto real = confinedPath(folder);
  if (!real) return;
  auto self = fileStatus(*real, Follow::yes);
  if (!self.ok() || !entered.insert({self->device, self->inode}).second) return;
  auto entries = listDirectoryConfined(folder);
  if (!entries.ok()) return;
  std::sort(entries->begin(), entries->end(),
            [](const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; });
  for (const auto& entry : *entries) {
    std::string path = joinPath(folder, entry.name);
    if (entry.isDirectory()) {
      desktopFiles(path, out, entered, depth + 1);
    } else if (entry.type == FileType::regular && entry.name.size() > 8 &&
               entry.name.ends_with(".desktop")) {
      out.push_back(path);
    }
  }
}

// An entry that no desktop shows as an application: Hidden (deleted) or NoDisplay (a helper
// such as "Open disc with VLC"), or one that can't be read as a desktop file.
bool isShown(const std::string& path) {
  auto content = readDesktopEntry(path);
  if (!content) return false;
  GKeyFile* file = g_key_file_new();
  bool shown = false;
  if (g_key_file_load_from_data(file, content->data(), content->size(), G_KEY_FILE_NONE, nullptr)) {
    shown = !g_key_file_get_boolean(file, "Desktop Entry", "Hidden", nullptr) &&
            !g_key_file_get_boolean(file, "Desktop Entry", "NoDisplay", nullptr);
  }
  g_key_file_free(file);
  return shown;
}

}  // namespace

std::optional<std::string> readDesktopEntry(const std::string& path) {
  auto confined = confinedPath(path);
  if (!confined) return std::nullopt;
  auto content = readRegularFile(*confined, kMaxDesktopEntryBytes, Follow::yes);
  if (!content.ok()) return std::nullopt;
  return std::move(*content);
}

std::string desktopFileID(const std::string& folder, const std::string& path) {
  std::string relative = path.substr(std::min(path.size(), folder.size() + 1));
  std::replace(relative.begin(), relative.end(), '/', '-');
  return relative;
}

namespace {

std::vector<std::string> desktopEntries(const Locations& locations, bool shownOnly) {
  std::set<std::string> seen;
  std::vector<std::string> urls;
  for (const auto& folder : locations.applications) {
    std::vector<std::string> files;
    std::set<std::pair<std::uint64_t, std::uint64_t>> entered;
    desktopFiles(folder, files, entered);
    for (const auto& path : files) {
      if (!seen.insert(desktopFileID(folder, path)).second) continue;  // an earlier folder has it
      if (!shownOnly || isShown(path)) urls.push_back(path);
    }
  }
  return urls;
}

// `path` with its links resolved, inside `root` when there is one, so that a program of a
// mounted disk never resolves into this machine. Nothing for a loop or a path outside the root.
std::optional<std::string> resolvedBelowRoot(const std::string& path, const std::string& root) {
  if (root.empty() || root == "/") return resolveInRoot("/", path);
  if (path != root && !path.starts_with(root + "/")) return std::nullopt;
  return resolveInRoot(root, path.substr(root.size()));
}

// The program a desktop entry's Exec line runs, past "env" and its assignments.
std::optional<std::string> programOfEntry(const std::string& content) {
  GKeyFile* file = g_key_file_new();
  std::optional<std::string> program;
  if (g_key_file_load_from_data(file, content.data(), content.size(), G_KEY_FILE_NONE, nullptr)) {
    gchar* exec = g_key_file_get_string(file, "Desktop Entry", "Exec", nullptr);
    gchar** argv = nullptr;
    gint argc = 0;
    if (exec != nullptr && g_shell_parse_argv(exec, &argc, &argv, nullptr)) {
      std::vector<std::string> words(argv, argv + argc);
      std::size_t i = 0;
      if (i < words.size() && lastPathComponent(words[i]) == "env") {
        ++i;
        while (i < words.size() && words[i].find('=') != std::string::npos) ++i;
      }
      if (i < words.size() && !words[i].empty()) program = words[i];
      g_strfreev(argv);
    }
    g_free(exec);
  }
  g_key_file_free(file);
  return program;
}

}  // namespace

std::vector<std::string> applicationURLs(const Locations& locations) {
  return desktopEntries(locations, true);
}

std::vector<std::string> installedApplicationURLs(const Locations& locations) {
  return desktopEntries(locations, false);
}

std::vector<std::string> installedFlatpaks(const Locations& locations) {
  std::set<std::string> ids;
  for (const auto& installation : locations.flatpakInstallations) {
    auto entries = listDirectoryConfined(joinPath(installation, "app"));
    if (!entries.ok()) continue;
    for (const auto& entry : *entries) {
      if (entry.isDirectory() && !entry.name.starts_with(".")) ids.insert(entry.name);
    }
  }
  return {ids.begin(), ids.end()};
}

std::optional<std::string> findCommand(const std::string& name, const Locations& locations) {
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
    return std::nullopt;
  }
  for (const auto& folder : locations.commandFolders) {
    auto path = resolvedBelowRoot(joinPath(folder, name), locations.root);
    if (!path) continue;
    auto status = fileStatus(*path, Follow::no);
    if (status.ok() && status->type == FileType::regular && (status->mode & 0111) != 0) {
      return joinPath(folder, name);
    }
  }
  return std::nullopt;
}

std::optional<std::string> applicationInstallLocation(const std::string& url,
                                                      const Locations& locations) {
  if (!url.ends_with(".desktop")) return std::nullopt;
  const std::string folder = deletingLastPathComponent(url);
  const std::string id = lastPathComponent(url).substr(0, lastPathComponent(url).size() - 8);
  for (const auto& installation : locations.flatpakInstallations) {
    if (folder == joinPath(installation, "exports/share/applications")) {
      std::string app = joinPath(joinPath(installation, "app"), id);
      if (isDirectory(app)) return app;
    }
  }
  if (folder.ends_with("/snapd/desktop/applications")) {
    // A snap's entries are named SNAP_APP.
    std::string snap = joinPath(locations.snapMounts, id.substr(0, id.find('_')));
    if (!id.empty() && id.front() != '_' && isDirectory(snap)) return snap;
  }
  auto content = readDesktopEntry(url);
  if (!content) return std::nullopt;
  auto program = programOfEntry(*content);
  if (!program) return std::nullopt;
  std::optional<std::string> path = program->front() == '/'
                                        ? underRootPath(locations.root, *program)
                                        : findCommand(*program, locations);
  if (!path) return std::nullopt;
  auto resolved = resolvedBelowRoot(*path, locations.root);
  if (!resolved || !fileExists(*resolved)) return std::nullopt;
  // A program kept below /opt comes with the folder that holds it ("/opt/google/chrome"), or
  // with the folder above when that one is only its "bin".
  const std::string opt = underRootPath(locations.root, "/opt");
  if (resolved->starts_with(opt + "/")) {
    std::string holder = deletingLastPathComponent(*resolved);
    if (lastPathComponent(holder) == "bin" && deletingLastPathComponent(holder) != opt) {
      holder = deletingLastPathComponent(holder);
    }
    if (holder != opt) return holder;
  }
  return resolved;
}

}  // namespace platform
