#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "Core/LargeFileFinder.h"
#include "cli/Commands.h"
#include "host/Host.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Locations.h"

namespace cli {

namespace {

class LargeFilesReport final : public Core::LargeFileFinderDelegate {
 public:
  void largeFileFinderCurrentURL(const std::string& url) override { status.show(url); }
  void largeFileFinderFound(const std::vector<Core::File>& found) override {
    files = found;
    finished = true;
  }

  StatusLine status;
  std::vector<Core::File> files;
  bool finished = false;
};

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

void addLargeCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("large", "The largest files of a folder (by default the home folder)");
  auto json = std::make_shared<bool>(false);
  auto minSize = std::make_shared<std::string>("100M");
  auto folder = std::make_shared<std::string>();
  command->add_option("--min-size", *minSize, "Smallest size to list (default 100M)");
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
    std::string scope =
        folder->empty() ? platform::currentLocations().home : checkedFolder(*folder);

    auto report = std::make_shared<LargeFilesReport>();
    auto query = platform::makeMetadataQuery();
    platform::MetadataQuery* index = query.get();  // owned by the finder, which outlives its use
    Core::LargeFileFinder finder(std::move(query));
    finder.delegate = report;
    finder.searchScopes = {scope};
    InterruptGuard interrupt;
    finder.start(*bytes);
    bool stopped = !runMainUntilDoneOrInterrupted([&] { return report->finished; }, interrupt);
    report->status.clear();
    if (stopped) {
      // What the index had gathered before the stop, largest first.
      finder.stop();
      report->files.clear();
      for (const auto& item : index->results()) {
        if (item.path && item.size) report->files.push_back(Core::File{*item.path, *item.size});
      }
      std::stable_sort(report->files.begin(), report->files.end(),
                       [](const auto& a, const auto& b) { return a.size > b.size; });
    }
    std::vector<ReadError> errors;
    for (const auto& e : index->errors()) errors.push_back({e.path, e.code});

    if (*json) {
      std::string out = "{\"files\":[";
      for (std::size_t i = 0; i < report->files.size(); ++i) {
        const auto& f = report->files[i];
        out += (i == 0 ? "{\"path\":" : ",{\"path\":") + jsonText(f.url).dump() +
               ",\"size\":" + std::to_string(f.size) + "}";
      }
      out += "],\"complete\":" + std::string(stopped || !errors.empty() ? "false" : "true");
      out += ",\"stopped\":" + std::string(stopped ? "true" : "false");
      out += ",\"errors\":" + errorsJson(errors).dump() + "}\n";
      std::fputs(out.c_str(), stdout);
    } else {
      std::int64_t total = 0;
      for (const auto& f : report->files) {
        std::printf("%10s  %s\n", f.sizeString().c_str(), displayText(f.url).c_str());
        total += f.size;
      }
      std::printf("%zu files of at least %s, %s in all%s\n", report->files.size(),
                  platform::formatByteCount(*bytes).c_str(),
                  platform::formatByteCount(total).c_str(),
                  stopped ? " (search stopped: only what was found before the stop)" : "");
    }
    if (stopped) throw CommandError{kFailure, "stopped"};
    if (!errors.empty()) failIncomplete(errors);
  });
}

}  // namespace cli
