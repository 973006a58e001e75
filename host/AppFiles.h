#pragma once

// What the applications' scans share: the application file finder's reports gathered into plain
// records, each installed application as the reports show it, and how a file record is written.

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Core/AppFileFinder.h"

namespace host {

struct AppFiles {
  std::vector<Core::File> apps;      // the application's own entries, with their sizes
  std::vector<Core::AppFile> files;  // sorted by path
  std::int64_t size = 0;             // of the files
};

struct AppFilesReport {
  std::map<std::string, AppFiles> installed;  // by identifier
  std::map<std::string, AppFiles> leftovers;  // by identifier; only when asked for
};

// An installed application as the reports show it.
struct AppEntry {
  Core::CaseInsensitiveString id;
  std::vector<std::string> names, nested;
  std::string url;
  std::optional<std::string> organization;  // the rules', else the label after the public suffix
  const AppFiles* files = nullptr;          // when its files were looked for and found
  std::int64_t appSize = 0;                 // of the application itself
  std::string icon;                         // its icon's file (PNG or SVG), when one is found
};

// Every installed application, or those named in `only`, in the order the system lists them.
// Ends with a `CommandError` when the rules or the public suffix list can't be loaded.
std::vector<AppEntry> installedApps(const AppFilesReport& report,
                                    const std::set<Core::CaseInsensitiveString>& only);

// The file of the icon a desktop entry names (`Icon=`): a path as it is, else NAME.png or
// NAME.svg in the hicolor theme (the larger sizes first) or pixmaps beside each applications
// folder, so that below a root only the root's icons are found. Empty when none is.
std::string iconFile(const std::string& icon);

// "cache", "log", ... as the rules name the kind.
std::string kindText(const Core::AppFile::Kind& kind);

// By which name an installed application owns a file: "id:NAME", "name:NAME",
// "organization:NAME"; for a leftover, its identifier.
std::string ownerText(const Core::App& owner);

// {"path", "size", "kind"} and, with `owner`, "owner".
nlohmann::json fileJson(const Core::AppFile& file, bool owner);

}  // namespace host
