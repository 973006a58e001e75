#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "Core/LargeFileFinder.h"
#include "cli/Commands.h"
#include "host/Host.h"
#include "host/Scans.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Locations.h"

namespace cli {

namespace {

// An absolute path for `folder`, or a usage error when it isn't a folder.
std::string checkedFolder(const std::string& folder) {
  auto status = platform::fileStatus(folder, platform::Follow::yes);
  if (!status.ok()) {
    throw CommandError{kUsage, fmt::format("{}: {}", folder, status.error().message())};
  }
  if (status->type != platform::FileType::directory) {
    throw CommandError{kUsage, fmt::format("{}: not a folder", folder)};
  }
  char resolved[PATH_MAX];
  return ::realpath(folder.c_str(), resolved) != nullptr ? std::string(resolved) : folder;
}

}  // namespace

std::string resolveFolderArgument(const std::string& folder) { return checkedFolder(folder); }

void runToItsEnd(ScanJob& scan) {
  StatusLine status;
  scan.start({}, [&] { status.show(scan.current()); });
  platform::runMainUntil([&] { return scan.finished(); }, std::chrono::hours(24 * 365));
}

void addLargeCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("large", "The largest files of a folder (by default the home folder)");
  auto json = std::make_shared<bool>(false);
  auto minSize = std::make_shared<std::string>("100M");
  auto folder = std::make_shared<std::string>();
  auto count = std::make_shared<unsigned>(0);
  auto tree = std::make_shared<bool>(false);
  command->add_flag("--tree", *tree,
                    "Then measure where the folder's space goes: its folders and files by size, "
                    "the small ones of each folder summed (\"tree\" in JSON)");
  command->add_option("--min-size", *minSize, "Smallest size to list (default 100M)");
  command->add_option("--count", *count, "List only the N largest")
      ->check(CLI::Range(1u, 1000000000u));
  command->add_flag("--json", *json,
                    "Print {\"files\": [{\"path\": ..., \"size\": N}, ...], \"complete\": BOOL, "
                    "\"stopped\": BOOL, \"errors\": [{\"path\", \"error\"}, ...]}");
  auto* folderOption =
      command->add_option("FOLDER", *folder, "Folder to search (default: the home folder)");
  command->footer(
      "Exit status 1 when Ctrl-C stopped the search or some folders could not be read; what was\n"
      "found is printed all the same.");
  command->callback([=] {
    auto bytes = parseSize(*minSize);
    if (!bytes) throw CommandError{kUsage, fmt::format("--min-size: not a size: {}", *minSize)};
    if (folderOption->count() > 0 && folder->empty()) {
      throw CommandError{kUsage, "FOLDER: an empty path"};
    }
    LargeScan scan(folder->empty() ? "" : checkedFolder(*folder), *bytes,
                   static_cast<std::size_t>(*count), *tree);
    StatusLine status;
    InterruptGuard interrupt;
    scan.start({}, [&] { status.show(scan.current()); });
    const bool stopped = !runMainUntilDoneOrInterrupted([&] { return scan.finished(); }, interrupt);
    if (stopped) scan.stop();
    status.clear();
    const std::vector<ReadError>& errors = scan.errors();

    if (*json) {
      scan.writeJson(
          [](std::string_view piece) { std::fwrite(piece.data(), 1, piece.size(), stdout); });
    } else {
      std::int64_t total = 0;
      for (const auto& f : scan.files()) {
        std::printf("%10s  %s\n", f.sizeString().c_str(), displayText(f.url).c_str());
        total += f.size;
      }
      std::printf("%zu files of at least %s, %s in all%s\n", scan.files().size(),
                  platform::formatByteCount(*bytes).c_str(),
                  platform::formatByteCount(total).c_str(),
                  stopped ? " (search stopped: only what was found before the stop)" : "");
      if (const auto& space = scan.tree()) {
        std::printf("\n%s  %s\n", platform::formatByteCount(space->size).c_str(),
                    displayText(space->name).c_str());
        for (const auto& child : space->children) {
          std::string name = child.smaller > 0
                                 ? fmt::format("({} smaller items)", child.smaller)
                                 : displayText(child.name) + (child.folder ? "/" : "");
          std::printf("%10s  %s\n", platform::formatByteCount(child.size).c_str(), name.c_str());
        }
      }
    }
    if (stopped) throw CommandError{kFailure, "stopped"};
    if (!errors.empty()) failIncomplete(errors);
  });
}

}  // namespace cli
