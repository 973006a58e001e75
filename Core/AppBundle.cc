#include "Core/AppBundle.h"

#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <utility>

#include "Core/IOSAppUUIDMapper.h"
#include "platform/Applications.h"
#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/Plist.h"
#include "ravelin/Version.h"

namespace Core {

namespace {

constexpr const char* kContainers[] = {"Frameworks",  "MacOS",     "Library",
                                       "LoginItems",  "PlugIns",   "Applications",
                                       "XPCServices", "Developer", "SharedSupport"};
constexpr const char* kBundleExtensions[] = {"app",    "appex",       "xpc",
                                             "bundle", "qlgenerator", "mdimporter"};

// The extension of a name, compared exactly ("" for none).
std::string extensionOf(const std::string& name) {
  auto dot = name.rfind('.');
  return dot == std::string::npos || dot == 0 ? "" : name.substr(dot + 1);
}

std::string withoutDesktopSuffix(const std::string& id) {
  return id.ends_with(".desktop") ? id.substr(0, id.size() - 8) : id;
}

// The program a desktop entry's Exec line starts: past "env" and its assignments, and for a
// flatpak the command it runs.
std::optional<std::string> executableName(const std::string& exec, const std::string& id) {
  gchar** argv = nullptr;
  gint argc = 0;
  if (!g_shell_parse_argv(exec.c_str(), &argc, &argv, nullptr)) return std::nullopt;
  std::vector<std::string> words(argv, argv + argc);
  g_strfreev(argv);
  std::size_t i = 0;
  if (i < words.size() && platform::lastPathComponent(words[i]) == "env") {
    ++i;
    while (i < words.size() && words[i].find('=') != std::string::npos) ++i;
  }
  if (i >= words.size()) return std::nullopt;
  std::string program = platform::lastPathComponent(words[i]);
  if (program == "flatpak") {
    for (const auto& word : words) {
      if (word.starts_with("--command=")) return platform::lastPathComponent(word.substr(10));
    }
    return id;
  }
  if (program.empty()) return std::nullopt;
  return program;
}

}  // namespace

std::optional<BundleIdentity> readBundleIdentity(const std::string& url) {
  auto plist = platform::confinedPath(platform::joinPath(url, "Contents/Info.plist"));
  if (!plist) return std::nullopt;
  auto info = platform::plist::readFile(*plist);
  if (!info || info->dictionary() == nullptr) return std::nullopt;
  const auto* identifier = info->find("CFBundleIdentifier");
  const auto* executable = info->find("CFBundleExecutable");
  if (identifier == nullptr || identifier->string() == nullptr || executable == nullptr ||
      executable->string() == nullptr || executable->string()->empty()) {
    return std::nullopt;
  }
  // The executable must exist, and lie in the bundle's "MacOS" folder.
  std::string path = platform::joinPath(url, "Contents/MacOS/" + *executable->string());
  auto confined = platform::confinedPath(path);
  if (executable->string()->find('/') != std::string::npos || !confined ||
      !platform::fileExists(*confined, platform::Follow::yes)) {
    return std::nullopt;
  }
  const auto* name = info->find("CFBundleName");
  return BundleIdentity{*identifier->string(), name != nullptr && name->string() != nullptr
                                                   ? *name->string()
                                                   : *executable->string()};
}

std::optional<MacAppBundle> MacAppBundle::make(const std::string& url) {
  auto identity = readBundleIdentity(url);
  if (!identity) return std::nullopt;
  MacAppBundle bundle;
  bundle.url = url;
  bundle.bundleID = CaseInsensitiveString(identity->identifier);
  bundle.bundleNames.emplace_back(identity->name);
  return bundle;
}

void MacAppBundle::loadNestedBundles() {
  std::vector<std::string> stack{platform::joinPath(url, "Contents")};
  // A folder met again (through a bind mount) isn't walked again.
  std::set<std::pair<std::uint64_t, std::uint64_t>> entered;
  while (!stack.empty()) {
    std::string folder = std::move(stack.back());
    stack.pop_back();
    auto self = platform::fileStatus(folder, platform::Follow::no);
    if (!self.ok() || !entered.insert({self->device, self->inode}).second) continue;
    // Only real folders are entered: a link (to "..", say) has no directory flag here, or the
    // walk could go round for ever.
    auto entries = platform::listDirectory(folder, platform::Follow::no);
    if (!entries.ok()) continue;
    for (const auto& entry : *entries) {
      if (!entry.isDirectory()) continue;
      std::string path = platform::joinPath(folder, entry.name);
      std::string extension = extensionOf(entry.name);
      if (extension.empty()) {
        if (std::find(std::begin(kContainers), std::end(kContainers), entry.name) !=
            std::end(kContainers)) {
          stack.push_back(path);
        }
      } else if (extension == "framework") {
        // Entered through its versions only; links (such as "Current") aren't followed.
        auto versions = platform::listDirectory(platform::joinPath(path, "Versions"));
        if (!versions.ok()) continue;
        for (const auto& version : *versions) {
          if (version.isDirectory()) {
            stack.push_back(platform::joinPath(platform::joinPath(path, "Versions"), version.name));
          }
        }
      } else if (std::find(std::begin(kBundleExtensions), std::end(kBundleExtensions), extension) !=
                 std::end(kBundleExtensions)) {
        if (auto identity = readBundleIdentity(path)) {
          bundleIDs.emplace_back(identity->identifier);
          bundleNames.emplace_back(identity->name);
        }
        stack.push_back(platform::joinPath(path, "Contents"));
      }
    }
  }
}

std::optional<DesktopAppBundle> DesktopAppBundle::make(const std::string& url,
                                                       const std::string& id) {
  auto content = platform::readDesktopEntry(url);
  if (!content) return std::nullopt;
  GKeyFile* file = g_key_file_new();
  std::optional<DesktopAppBundle> result;
  if (g_key_file_load_from_data(file, content->data(), content->size(), G_KEY_FILE_NONE, nullptr)) {
    gchar* type = g_key_file_get_string(file, "Desktop Entry", "Type", nullptr);
    gchar* name = g_key_file_get_string(file, "Desktop Entry", "Name", nullptr);
    gchar* exec = g_key_file_get_string(file, "Desktop Entry", "Exec", nullptr);
    gchar* windowClass = g_key_file_get_string(file, "Desktop Entry", "StartupWMClass", nullptr);
    gchar* icon = g_key_file_get_string(file, "Desktop Entry", "Icon", nullptr);
    if (type != nullptr && std::string(type) == "Application" && name != nullptr && *name) {
      DesktopAppBundle bundle;
      bundle.url = url;
      bundle.bundleID = CaseInsensitiveString(withoutDesktopSuffix(id));
      bundle.bundleNames.emplace_back(std::string(name));
      if (exec != nullptr) {
        if (auto program = executableName(exec, bundle.bundleID.origin())) {
          if (CaseInsensitiveString(*program) != bundle.bundleNames.front()) {
            bundle.bundleNames.emplace_back(*program);
          }
        }
      }
      // The window class is the name the program gives itself ("Code" for VS Code), often
      // the spelling of its folders.
      if (windowClass != nullptr && *windowClass &&
          std::find(bundle.bundleNames.begin(), bundle.bundleNames.end(),
                    CaseInsensitiveString(windowClass)) == bundle.bundleNames.end()) {
        bundle.bundleNames.emplace_back(std::string(windowClass));
      }
      if (icon != nullptr) bundle.icon = icon;
      result = std::move(bundle);
    }
    g_free(icon);
    g_free(windowClass);
    g_free(type);
    g_free(name);
    g_free(exec);
  }
  g_key_file_free(file);
  return result;
}

void DesktopAppBundle::loadNestedBundles() {
  // A flatpak exports only files named after its application ID: its other desktop entries and
  // the D-Bus services it offers.
  std::string folder = platform::deletingLastPathComponent(url);
  if (!folder.ends_with("exports/share/applications")) return;
  const std::string& id = bundleID.origin();
  auto add = [&](const std::string& dir, const std::string& suffix) {
    auto entries = platform::listDirectoryConfined(dir);
    if (!entries.ok()) return;
    std::vector<std::string> names;
    for (const auto& entry : *entries) names.push_back(entry.name);
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
      if (!name.ends_with(suffix) || !name.starts_with(id)) continue;
      std::string nested = name.substr(0, name.size() - suffix.size());
      if (CaseInsensitiveString(nested) == bundleID) continue;
      bundleIDs.emplace_back(nested);
    }
  };
  add(folder, ".desktop");
  add(platform::joinPath(platform::deletingLastPathComponent(folder), "dbus-1/services"),
      ".service");
}

AppBundleLoader::AppBundleLoader() {
  if constexpr (ravelin::kArm64Build) {
    uuidMapper = std::make_shared<IOSAppUUIDMapper>(platform::currentLocations().home);
  }
}

std::unique_ptr<AppBundle> AppBundleLoader::bundle(const std::string& url) const {
  if (url.ends_with(".desktop")) {
    std::string id = platform::lastPathComponent(url);
    for (const auto& folder : platform::currentLocations().applications) {
      if (url.starts_with(folder + "/")) {
        id = platform::desktopFileID(folder, url);
        break;
      }
    }
    auto desktop = DesktopAppBundle::make(url, id);
    return desktop ? std::make_unique<DesktopAppBundle>(std::move(*desktop)) : nullptr;
  }
  if (auto mac = MacAppBundle::make(url)) return std::make_unique<MacAppBundle>(std::move(*mac));
  if (uuidMapper) {
    if (auto wrapped = WrappedBundle::make(url, uuidMapper)) {
      return std::make_unique<WrappedBundle>(std::move(*wrapped));
    }
  }
  return nullptr;
}

std::vector<std::string> applicationURLs() {
  return platform::applicationURLs(platform::currentLocations());
}

}  // namespace Core
