#include <fmt/format.h>

#include <cstdio>

#include "cli/Commands.h"
#include "cli/Host.h"
#include "dff/CoreDuplicateFileFinder.h"
#include "platform/ByteCountFormatter.h"
#include "platform/Dispatch.h"
#include "platform/Locations.h"

namespace cli {

namespace {

class DupesReport final : public Core::DuplicateFileFinderDelegate {
 public:
  void duplicateFileFinderCurrent(const std::string& url) override {
    current = url;
    redraw();
  }
  void duplicateFileFinderProgress(double value) override {
    progress = value;
    redraw();
  }
  void duplicateFileFinderCompleted(
      const std::vector<std::vector<Core::Duplicate>>& found) override {
    groups = found;
    finished = true;
  }

  void redraw() { status.show(fmt::format("{:3.0f}%  {}", progress * 100, current)); }

  StatusLine status;
  std::string current;
  double progress = 0;
  std::vector<std::vector<Core::Duplicate>> groups;
  bool finished = false;
};

const Core::File& fileOf(const Core::Duplicate& member) {
  if (auto* photo = std::get_if<Core::Photo>(&member)) return photo->file;
  return std::get<Core::File>(member);
}

void printReport(const std::vector<std::vector<Core::Duplicate>>& groups, bool stopped) {
  std::size_t files = 0;
  std::int64_t reclaimable = 0;
  for (const auto& group : groups) {
    const Core::File& first = fileOf(group.front());
    std::printf("%zu × %s\n", group.size(), platform::formatByteCount(first.size).c_str());
    for (const auto& member : group) {
      if (auto* photo = std::get_if<Core::Photo>(&member)) {
        std::printf("  %s  [photo %s]\n", displayText(photo->file.url).c_str(),
                    displayText(photo->id).c_str());
      } else {
        std::printf("  %s\n", displayText(fileOf(member).url).c_str());
      }
    }
    std::printf("\n");
    files += group.size();
    // Keeping one of each frees the rest.
    for (std::size_t i = 1; i < group.size(); ++i) reclaimable += fileOf(group[i]).size;
  }
  std::printf("%zu groups, %zu items, %s could be freed by keeping one of each%s\n", groups.size(),
              files, platform::formatByteCount(reclaimable).c_str(),
              stopped ? " (search stopped: only what was settled before the stop)" : "");
}

// Streams the groups as one JSON document; a document object of a million members would cost
// more memory than the search itself.
void printJson(const std::vector<std::vector<Core::Duplicate>>& groups) {
  std::string out = "{\"groups\":[";
  for (std::size_t g = 0; g < groups.size(); ++g) {
    out += g == 0 ? "[" : ",[";
    for (std::size_t m = 0; m < groups[g].size(); ++m) {
      const auto& member = groups[g][m];
      const Core::File& file = fileOf(member);
      out += m == 0 ? "{\"path\":" : ",{\"path\":";
      out += jsonText(file.url).dump();
      out += ",\"size\":" + std::to_string(file.size);
      if (auto* photo = std::get_if<Core::Photo>(&member)) {
        out += ",\"kind\":\"photo\",\"id\":" + jsonText(photo->id).dump() + "}";
      } else {
        out += ",\"kind\":\"file\"}";
      }
      if (out.size() > (1 << 16)) {
        std::fwrite(out.data(), 1, out.size(), stdout);
        out.clear();
      }
    }
    out += "]";
  }
  out += "]}\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
}

}  // namespace

void addDupesCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("dupes", "Identical files, folders, packages and photo-library pictures");
  auto json = std::make_shared<bool>(false);
  auto hidden = std::make_shared<bool>(false);
  auto minSize = std::make_shared<std::string>("0");
  auto excludes = std::make_shared<std::vector<std::string>>();
  auto excludeExtensions = std::make_shared<std::vector<std::string>>();
  auto roots = std::make_shared<std::vector<std::string>>();
  command->add_option("--min-size", *minSize, "Leave out files smaller than SIZE (default 0)");
  command->add_flag("--hidden", *hidden, "Enter folders whose name starts with a dot");
  command->add_option("--exclude", *excludes, "Leave out this folder (repeatable)")
      ->allow_extra_args(false);
  command
      ->add_option("--exclude-ext", *excludeExtensions,
                   "Leave out names ending in SUFFIX, e.g. .tmp (repeatable)")
      ->allow_extra_args(false);
  command->add_flag("--json", *json,
                    "Print {\"groups\": [[{\"path\", \"size\", \"kind\", \"id\"}, ...], ...]}");
  command->add_option("ROOT", *roots, "Folders or photo libraries to search (default: home)");
  command->callback([=] {
    auto bytes = parseSize(*minSize);
    if (!bytes) throw CommandError{kUsage, fmt::format("--min-size: not a size: {}", *minSize)};
    std::vector<std::string> folders;
    for (const auto& root : *roots) folders.push_back(resolveFolderArgument(root));
    if (folders.empty()) folders.push_back(platform::currentLocations().home);

    auto& finder = Core::DuplicateFileFinder::shared();
    finder.setRootFolderURLs(folders);
    finder.setExcludePaths(*excludes);
    finder.setExcludeExtensions(*excludeExtensions);
    finder.setIncludeHiddenFolders(*hidden);
    finder.setMinFileSize(*bytes);
    auto report = std::make_shared<DupesReport>();
    finder.setDelegate(report);

    InterruptGuard interrupt;
    bool stopped = false;
    finder.start();
    platform::runMainUntil(
        [&] {
          if (interrupt.interrupted() && !stopped) {
            // The engine winds down and reports what it settled before the stop.
            stopped = true;
            finder.stop();
          }
          return report->finished;
        },
        std::chrono::hours(24 * 365));
    report->status.clear();
    if (*json) {
      printJson(report->groups);
    } else {
      printReport(report->groups, stopped);
    }
  });
}

}  // namespace cli
