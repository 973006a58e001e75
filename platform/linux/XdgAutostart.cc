#include <glib.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>

#include "platform/Applications.h"
#include "platform/Files.h"
#include "platform/LoginItems.h"

namespace platform::login_items {

namespace {

// The key an override written here carries, so that switching the entry on again removes the
// override and nothing of the user's own.
constexpr const char* kOverrideKey = "X-Ravelin-Override";

// The desktops of this session ($XDG_CURRENT_DESKTOP, colon-separated).
std::vector<std::string> currentDesktops() {
  std::vector<std::string> desktops;
  const char* value = std::getenv("XDG_CURRENT_DESKTOP");
  std::string list = value != nullptr ? value : "";
  std::size_t start = 0;
  while (start <= list.size()) {
    std::size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    if (end > start) desktops.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  return desktops;
}

// Whether the desktop list of `key` names one of this session's desktops.
bool namesCurrentDesktop(GKeyFile* file, const char* key) {
  gsize count = 0;
  gchar** names = g_key_file_get_string_list(file, "Desktop Entry", key, &count, nullptr);
  bool named = false;
  for (const auto& desktop : currentDesktops()) {
    for (gsize i = 0; i < count; ++i) {
      if (desktop == names[i]) named = true;
    }
  }
  g_strfreev(names);
  return named;
}

// Whether the entry is switched off: Hidden, or GNOME's own switch, or meant for other desktops
// than this session's (OnlyShowIn, NotShowIn). Unreadable entries are off.
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
    if (g_key_file_has_key(file, "Desktop Entry", "OnlyShowIn", nullptr) &&
        !namesCurrentDesktop(file, "OnlyShowIn")) {
      off = true;
    }
    if (namesCurrentDesktop(file, "NotShowIn")) off = true;
  }
  g_key_file_free(file);
  return off;
}

// The entry's text with its switches set to `on`: "Hidden" and "X-GNOME-Autostart-enabled"
// taken out to switch it on, "Hidden=true" added to switch it off. Everything else stays as the
// user wrote it. Nothing when the text isn't a desktop entry.
std::optional<std::string> withSwitch(const std::string& content, bool on) {
  GKeyFile* file = g_key_file_new();
  std::optional<std::string> out;
  if (g_key_file_load_from_data(
          file, content.data(), content.size(),
          static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS),
          nullptr) &&
      g_key_file_has_group(file, "Desktop Entry")) {
    g_key_file_remove_key(file, "Desktop Entry", "Hidden", nullptr);
    g_key_file_remove_key(file, "Desktop Entry", "X-GNOME-Autostart-enabled", nullptr);
    if (!on) g_key_file_set_boolean(file, "Desktop Entry", "Hidden", TRUE);
    gsize length = 0;
    gchar* data = g_key_file_to_data(file, &length, nullptr);
    if (data != nullptr) out = std::string(data, length);
    g_free(data);
  }
  g_key_file_free(file);
  return out;
}

// Whether the entry is an override this program wrote over a system entry.
bool isOverride(const std::string& path) {
  auto content = readDesktopEntry(path);
  if (!content) return false;
  GKeyFile* file = g_key_file_new();
  bool written =
      g_key_file_load_from_data(file, content->data(), content->size(), G_KEY_FILE_NONE, nullptr) &&
      g_key_file_get_boolean(file, "Desktop Entry", kOverrideKey, nullptr);
  g_key_file_free(file);
  return written;
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

// Whether the user's autostart folder is one of the system's (a link to /etc/xdg/autostart, say):
// writing there would change the system's own entries.
bool userFolderIsTheSystems(const Locations& locations) {
  auto user = confinedPath(locations.autostart.front());
  if (!user) return true;
  auto own = fileStatus(*user, Follow::yes);
  if (!own.ok()) return false;  // not made yet: it will be a folder of the user's
  for (std::size_t i = 1; i < locations.autostart.size(); ++i) {
    auto system = confinedPath(locations.autostart[i]);
    if (!system) continue;
    auto status = fileStatus(*system, Follow::yes);
    if (status.ok() && status->device == own->device && status->inode == own->inode) return true;
  }
  return false;
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

std::vector<LoginItem> switchedOffEntries(const Locations& locations) {
  std::vector<LoginItem> items;
  if (locations.autostart.empty()) return items;
  for (const auto& [name, path] : entries(locations)) {
    if (deletingLastPathComponent(path) != locations.autostart.front() || !isSwitchedOff(path)) {
      continue;
    }
    // Over a system entry, the system's entry is the item; else the user's own.
    std::optional<std::string> system;
    for (std::size_t i = 1; i < locations.autostart.size(); ++i) {
      std::string candidate = joinPath(locations.autostart[i], name);
      if (!readDesktopEntry(candidate)) continue;
      system = candidate;
      break;
    }
    if (system) {
      if (!isSwitchedOff(*system)) items.push_back(LoginItem{*system, resolve(locations, *system)});
    } else if (readDesktopEntry(path)) {
      items.push_back(LoginItem{path, resolve(locations, path)});
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
  if (userFolderIsTheSystems(locations)) return false;
  const std::string& userFolder = locations.autostart.front();
  // An entry the user switched off: the override written here goes, the user's own entry is
  // switched on in place.
  for (const auto& item : switchedOffEntries(locations)) {
    if (!item.url || *item.url != url) continue;
    const std::string userEntry = joinPath(userFolder, lastPathComponent(item.entry));
    if (isOverride(userEntry)) return ::unlink(userEntry.c_str()) == 0;
    auto content = readDesktopEntry(userEntry);
    auto switched = content ? withSwitch(*content, true) : std::nullopt;
    return switched && writeFile(userEntry, *switched);
  }
  auto content = readDesktopEntry(url);
  if (!content) return false;
  return writeFile(joinPath(userFolder, lastPathComponent(url)), *content);
}

bool removeLoginItem(const Locations& locations, const std::string& url) {
  if (!isInLoginItems(locations, url) || locations.autostart.empty()) return false;
  if (userFolderIsTheSystems(locations)) return false;
  const std::string& userFolder = locations.autostart.front();
  bool done = true;
  for (const auto& item : loginItemSnapshot(locations)) {
    if (!item.url || *item.url != url) continue;
    const std::string name = lastPathComponent(item.entry);
    const std::string userEntry = joinPath(userFolder, name);
    if (deletingLastPathComponent(item.entry) == userFolder) {
      // The user's own entry is kept, switched off, so that it can come back as it was.
      auto content = readDesktopEntry(userEntry);
      auto switched = content ? withSwitch(*content, false) : std::nullopt;
      done = switched && writeFile(userEntry, *switched) && done;
    } else {
      // A system entry: an override of the user's hides it, and goes again to show it.
      done = writeFile(userEntry, "[Desktop Entry]\nType=Application\nName=" + name +
                                      "\nHidden=true\n" + kOverrideKey + "=true\n") &&
             done;
    }
  }
  return done;
}

}  // namespace platform::login_items
