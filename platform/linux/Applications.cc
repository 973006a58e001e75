#include "platform/Applications.h"

#include <glib.h>

#include <algorithm>
#include <set>

#include "platform/Files.h"

namespace platform {

namespace {

// Desktop files below `folder`, sorted, descending into subfolders as the XDG layout allows.
void desktopFiles(const std::string& folder, std::vector<std::string>& out, int depth = 0) {
  if (depth > 8) return;
  auto entries = listDirectory(folder, Follow::yes);
  if (!entries.ok()) return;
  std::sort(entries->begin(), entries->end(),
            [](const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; });
  for (const auto& entry : *entries) {
    std::string path = joinPath(folder, entry.name);
    if (entry.isDirectory()) {
      desktopFiles(path, out, depth + 1);
    } else if (entry.name.size() > 8 && entry.name.ends_with(".desktop")) {
      out.push_back(path);
    }
  }
}

bool isHidden(const std::string& path) {
  GKeyFile* file = g_key_file_new();
  bool hidden = false;
  if (g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr)) {
    hidden = g_key_file_get_boolean(file, "Desktop Entry", "Hidden", nullptr);
  }
  g_key_file_free(file);
  return hidden;
}

}  // namespace

std::string desktopFileID(const std::string& folder, const std::string& path) {
  std::string relative = path.substr(std::min(path.size(), folder.size() + 1));
  std::replace(relative.begin(), relative.end(), '/', '-');
  return relative;
}

std::vector<std::string> applicationURLs(const Locations& locations) {
  std::set<std::string> seen;
  std::vector<std::string> urls;
  for (const auto& folder : locations.applications) {
    std::vector<std::string> files;
    desktopFiles(folder, files);
    for (const auto& path : files) {
      if (!seen.insert(desktopFileID(folder, path)).second) continue;  // an earlier folder has it
      if (!isHidden(path)) urls.push_back(path);
    }
  }
  return urls;
}

}  // namespace platform
