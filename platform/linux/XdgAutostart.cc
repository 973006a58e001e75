#include <glib.h>

#include <algorithm>
#include <fstream>
#include <set>

#include "platform/Applications.h"
#include "platform/Files.h"
#include "platform/LoginItems.h"

namespace platform::login_items {

namespace {

// Whether the entry is switched off: Hidden, or GNOME's own switch. Unreadable entries are off.
bool isSwitchedOff(const std::string& path) {
  auto content = readDesktopEntry(path);
  if (!content) return true;
  GKeyFile* file = g_key_file_new();
  bool off = true;
  if (g_key_file_load_from_data(file, content->data(), content->size(), G_KEY_FILE_NONE, nullptr) &&
      g_key_file_has_group(file, "Desktop Entry")) {
    GError* missing = nullptr;
    gboolean enabled =
        g_key_file_get_boolean(file, "Desktop Entry", "X-GNOME-Autostart-enabled", &missing);
    off = g_key_file_get_boolean(file, "Desktop Entry", "Hidden", nullptr) ||
          (missing == nullptr && !enabled);
    if (missing != nullptr) g_error_free(missing);
  }
  g_key_file_free(file);
  return off;
}

// The application desktop entry of the same desktop-file ID, or the entry itself.
std::optional<std::string> resolve(const Locations& locations, const std::string& entry) {
  if (!readDesktopEntry(entry)) return std::nullopt;
  const std::string name = lastPathComponent(entry);
  for (const auto& folder : locations.applications) {
    std::string candidate = joinPath(folder, name);
    if (readDesktopEntry(candidate)) return candidate;
  }
  return entry;
}

// Every entry name of the autostart folders with the file that counts for it.
std::vector<std::pair<std::string, std::string>> entries(const Locations& locations) {
  std::vector<std::pair<std::string, std::string>> out;
  std::set<std::string> seen;
  for (const auto& folder : locations.autostart) {
    auto listing = listDirectoryConfined(folder);
    if (!listing.ok()) continue;
    std::vector<std::string> names;
    for (const auto& item : *listing) {
      if (item.type == FileType::regular && item.name.ends_with(".desktop")) {
        names.push_back(item.name);
      }
    }
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
      if (seen.insert(name).second) out.emplace_back(name, joinPath(folder, name));
    }
  }
  return out;
}

bool writeFile(const std::string& path, const std::string& content) {
  std::error_code ignored;
  std::string folder = deletingLastPathComponent(path);
  if (::g_mkdir_with_parents(folder.c_str(), 0755) != 0) return false;
  std::string temporary = path + ".ravelin-new";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) return false;
  }
  return ::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

std::vector<LoginItem> loginItemSnapshot(const Locations& locations) {
  std::vector<LoginItem> items;
  for (const auto& [name, path] : entries(locations)) {
    if (isSwitchedOff(path)) continue;
    items.push_back(LoginItem{path, resolve(locations, path)});
  }
  return items;
}

std::vector<LoginItem> switchedOffSystemEntries(const Locations& locations) {
  std::vector<LoginItem> items;
  if (locations.autostart.empty()) return items;
  for (const auto& [name, path] : entries(locations)) {
    if (deletingLastPathComponent(path) != locations.autostart.front() || !isSwitchedOff(path)) {
      continue;
    }
    for (std::size_t i = 1; i < locations.autostart.size(); ++i) {
      std::string system = joinPath(locations.autostart[i], name);
      if (!readDesktopEntry(system) || isSwitchedOff(system)) continue;
      items.push_back(LoginItem{system, resolve(locations, system)});
      break;
    }
  }
  return items;
}

bool isInLoginItems(const Locations& locations, const std::string& url) {
  for (const auto& item : loginItemSnapshot(locations)) {
    if (item.url && *item.url == url) return true;
  }
  return false;
}

bool addLoginItem(const Locations& locations, const std::string& url) {
  if (isInLoginItems(locations, url) || locations.autostart.empty()) return false;
  auto content = readDesktopEntry(url);
  if (!content) return false;
  return writeFile(joinPath(locations.autostart.front(), lastPathComponent(url)), *content);
}

bool removeLoginItem(const Locations& locations, const std::string& url) {
  if (!isInLoginItems(locations, url) || locations.autostart.empty()) return false;
  const std::string& userFolder = locations.autostart.front();
  for (const auto& item : loginItemSnapshot(locations)) {
    if (!item.url || *item.url != url) continue;
    const std::string name = lastPathComponent(item.entry);
    const std::string userEntry = joinPath(userFolder, name);
    // A system entry of the same name would come back once the user's is gone: hide it instead.
    bool systemEntry = false;
    for (std::size_t i = 1; i < locations.autostart.size(); ++i) {
      auto path = confinedPath(joinPath(locations.autostart[i], name));
      if (path && fileExists(*path, Follow::no)) systemEntry = true;
    }
    if (systemEntry) {
      writeFile(userEntry, "[Desktop Entry]\nType=Application\nName=" + name + "\nHidden=true\n");
    } else {
      ::unlink(userEntry.c_str());
    }
  }
  return true;
}

}  // namespace platform::login_items
