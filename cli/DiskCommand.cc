#include <fmt/format.h>

#include <cstdio>
#include <thread>

#include "cli/Commands.h"
#include "host/Host.h"
#include "host/Monitor.h"
#include "monitor/DiskInfo.h"
#include "platform/ByteCountFormatter.h"

namespace cli {

void addDiskCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "disk", "The start-up disk's size, free space and medium, and the size of a folder");
  auto json = std::make_shared<bool>(false);
  auto folder = std::make_shared<std::string>();
  command->add_flag("--json", *json,
                    "Print {\"total\": N, \"free\": N, \"ssd\": true|false} (and \"size\")");
  command->add_option("--size", *folder, "Also add up the sizes of the regular files below FOLDER");
  auto* sizeOption = command->get_option("--size");
  command->footer(
      "Exit status 1 when some entries below FOLDER could not be read (the size of the rest is\n"
      "printed, as du does) or Ctrl-C stopped the measuring.");
  command->callback([=] {
    if (sizeOption->count() > 0 && folder->empty()) {
      throw CommandError{kUsage, "--size: an empty path"};
    }
    std::string path = folder->empty() ? "" : resolveFolderArgument(*folder);
    auto disk = startupDiskJson();
    if (!disk) throw CommandError{kFailure, "cannot read the start-up disk"};

    std::optional<std::int64_t> size;
    std::vector<platform::WalkError> walkErrors;
    if (!path.empty()) {
      InterruptGuard interrupt;
      std::atomic<bool> stop{false};
      // The walk reads the stop flag between entries; Ctrl-C sets it. The watcher is joined on
      // every way out.
      std::jthread watcher([&](std::stop_token token) {
        while (!token.stop_requested()) {
          if (interrupt.interrupted()) stop.store(true);
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
      });
      StatusLine status;
      status.show("Measuring " + path);
      int error = 0;
      size = monitor::GetDirectorySize(path.c_str(), &stop, &error, &walkErrors);
      watcher.request_stop();
      status.clear();
      if (stop.load()) throw CommandError{kFailure, "stopped"};
    }
    std::vector<ReadError> errors;
    for (const auto& e : walkErrors) errors.push_back({e.path, e.code});

    if (*json) {
      nlohmann::json out = *disk;
      if (size) {
        out["size"] = *size;
        out["complete"] = errors.empty();
        out["errors"] = errorsJson(errors);
      }
      std::puts(out.dump().c_str());
    } else {
      std::printf("Start-up disk  %s total, %s free, %s\n",
                  platform::formatByteCount((*disk)["total"].get<std::int64_t>()).c_str(),
                  platform::formatByteCount((*disk)["free"].get<std::int64_t>()).c_str(),
                  (*disk)["ssd"].get<bool>() ? "solid state" : "not solid state");
      if (size) {
        std::printf("%s  %s (%lld bytes in regular files)\n", displayText(path).c_str(),
                    platform::formatByteCount(*size).c_str(), static_cast<long long>(*size));
      }
    }
    // Like du: the sum of what could be read is printed, and the exit status says it isn't all.
    if (!errors.empty()) failIncomplete(errors);
  });
}

}  // namespace cli
