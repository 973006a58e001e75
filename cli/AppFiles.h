#pragma once

// What `ravelin apps --files` and `ravelin leftovers` share: a run of the application file
// finder gathered into plain records, and how a file record is written.

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Core/AppFileFinder.h"

namespace cli {

struct AppFiles {
  std::vector<Core::File> apps;      // the application's own entries, with their sizes
  std::vector<Core::AppFile> files;  // sorted by path
  std::int64_t size = 0;             // of the files
};

struct AppFilesReport {
  std::map<std::string, AppFiles> installed;  // by identifier
  std::map<std::string, AppFiles> leftovers;  // by identifier; only when asked for
};

// Runs `scan()` and, with `leftovers`, `scanLeftovers()` after it, showing progress on a
// terminal. Ends with a `CommandError` when the rules can't be loaded.
AppFilesReport findAppFiles(bool leftovers);

// "cache", "log", ... as the rules name the kind.
std::string kindText(const Core::AppFile::Kind& kind);

// By which name an installed application owns a file: "id:NAME", "name:NAME",
// "organization:NAME"; for a leftover, its identifier.
std::string ownerText(const Core::App& owner);

// {"path", "size", "kind"} and, with `owner`, "owner".
nlohmann::json fileJson(const Core::AppFile& file, bool owner);

}  // namespace cli
