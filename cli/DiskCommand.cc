#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <thread>

#include "cli/Commands.h"
#include "cli/Host.h"
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
  command->callback([=] {
    std::string path = folder->empty() ? "" : resolveFolderArgument(*folder);
    auto info = monitor::DiskInfoReader::shared().readInfo();
    if (!info) throw CommandError{kFailure, "cannot read the start-up disk"};
    bool ssd = monitor::DiskInfoReader::shared().isSSD();

    std::optional<std::int64_t> size;
    int error = 0;
    if (!path.empty()) {
      InterruptGuard interrupt;
      std::atomic<bool> stop{false};
      std::atomic<bool> done{false};
      // The walk reads the stop flag between entries; Ctrl-C sets it.
      std::thread watcher([&] {
        while (!done.load()) {
          if (interrupt.interrupted()) stop.store(true);
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
      });
      StatusLine status;
      status.show("Measuring " + path);
      size = monitor::GetDirectorySize(path.c_str(), &stop, &error);
      done.store(true);
      watcher.join();
      status.clear();
      if (stop.load()) throw CommandError{kFailure, "interrupted"};
    }

    if (*json) {
      nlohmann::json out{{"total", (*info)->totalSize}, {"free", (*info)->freeSize}, {"ssd", ssd}};
      if (size) out["size"] = *size;
      std::puts(out.dump().c_str());
    } else {
      std::printf("Start-up disk  %s total, %s free, %s\n",
                  platform::formatByteCount((*info)->totalSize).c_str(),
                  platform::formatByteCount((*info)->freeSize).c_str(),
                  ssd ? "solid state" : "not solid state");
      if (size) {
        std::printf("%s  %s (%lld bytes in regular files)\n", displayText(path).c_str(),
                    platform::formatByteCount(*size).c_str(), static_cast<long long>(*size));
      }
    }
    if (error != 0) {
      // Like du: the sum of what could be read is printed, and the exit status says it isn't all.
      throw CommandError{
          kFailure, fmt::format("some entries could not be read ({}); the size leaves them out",
                                std::strerror(error))};
    }
  });
}

}  // namespace cli
