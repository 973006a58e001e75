#include <fmt/format.h>

#include <cstdio>

#include "Core/LargeFileFinder.h"
#include "cli/Commands.h"
#include "cli/Host.h"
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
  command->add_flag("--json", *json, "Print {\"files\": [{\"path\": ..., \"size\": N}, ...]}");
  command->add_option("FOLDER", *folder, "Folder to search (default: the home folder)");
  command->callback([=] {
    auto bytes = parseSize(*minSize);
    if (!bytes) throw CommandError{kUsage, fmt::format("--min-size: not a size: {}", *minSize)};
    std::string scope =
        folder->empty() ? platform::currentLocations().home : checkedFolder(*folder);

    auto report = std::make_shared<LargeFilesReport>();
    Core::LargeFileFinder finder;
    finder.delegate = report;
    finder.searchScopes = {scope};
    InterruptGuard interrupt;
    finder.start(*bytes);
    platform::runMainUntil([&] { return report->finished || interrupt.interrupted(); },
                           std::chrono::hours(24 * 365));
    report->status.clear();
    if (!report->finished) {
      finder.stop();
      throw CommandError{kFailure, "interrupted"};
    }

    if (*json) {
      nlohmann::json files = nlohmann::json::array();
      for (const auto& f : report->files)
        files.push_back({{"path", jsonText(f.url)}, {"size", f.size}});
      std::puts(nlohmann::json{{"files", files}}.dump().c_str());
      return;
    }
    std::int64_t total = 0;
    for (const auto& f : report->files) {
      std::printf("%10s  %s\n", f.sizeString().c_str(), displayText(f.url).c_str());
      total += f.size;
    }
    std::printf("%zu files of at least %s, %s in all\n", report->files.size(),
                platform::formatByteCount(*bytes).c_str(),
                platform::formatByteCount(total).c_str());
  });
}

}  // namespace cli
