#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <set>
#include <unordered_map>

#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "host/Host.h"
#include "host/Startup.h"
#include "launch/ItemsStatusManager.h"
#include "launch/LaunchItem.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Launchd.h"
#include "platform/Locations.h"
#include "platform/Packages.h"
#include "platform/Process.h"

namespace cli {

void addStartupCommand(CLI::App& app) {
  auto* command = app.add_subcommand("startup", "What starts by itself, and switching it off");
  auto json = std::make_shared<bool>(false);
  auto all = std::make_shared<bool>(false);
  auto disable = std::make_shared<std::string>();
  auto enable = std::make_shared<std::string>();
  command->add_flag("--json", *json,
                    "Print {\"items\": [{\"type\", \"label\", \"path\", \"runs\", \"enabled\", "
                    "\"domain\", \"state\", \"origin\", \"package\", \"protected\", \"next\"}]}");
  command->add_flag("--all", *all,
                    "Also list the units no one switches (static, masked, generated, indirect, "
                    "aliases)");
  auto* disableOption = command->add_option("--disable", *disable,
                                            "Keep NAME (a label, or a path as listed) "
                                            "from starting by itself");
  auto* enableOption = command->add_option("--enable", *enable, "Let NAME start by itself again");
  disableOption->excludes(enableOption);
  command->footer(
      "Types: login-item (an autostart entry of the desktop), user-agent (a systemd unit of\n"
      "yours), global-agent (a unit every user's session runs), daemon (a system unit, of\n"
      "/etc/systemd/system or of a package in /lib/systemd/system). Each unit shows its state\n"
      "as systemctl words it in its own domain, and its origin: the package that ships it, the\n"
      "administrator or you. The service manager's own units, getty, D-Bus, the display manager\n"
      "and ssh are listed as protected and never switched from here. Switching a global agent or\n"
      "a daemon needs root: as another user the privileged helper does it if it is installed,\n"
      "else it fails with exit status 1. Every change is read back: what systemctl says after it\n"
      "is printed, and a change that didn't happen exits 1. A login item is switched by your own\n"
      "autostart entry: Hidden=true over a system one (removed again to switch it on), or in\n"
      "your own entry; the system's files are never changed.");
  command->callback([=] {
    const bool changing = !disable->empty() || !enable->empty();
    const std::string name = !disable->empty() ? *disable : *enable;
    if ((disableOption->count() > 0 || enableOption->count() > 0) && name.empty()) {
      throw CommandError{kUsage, "--enable/--disable: an empty name"};
    }
    StartupScan scan(*all);
    runToItsEnd(scan);
    auto& items = scan.items();
    if (changing) {
      Switched switched{};
      try {
        switchStartupItem(items, name, disable->empty(), switched);
      } catch (const CommandError& error) {
        // A change that was tried is read back all the same.
        if (!switched.name.empty()) {
          std::printf("%s  %s (%s)\n", displayText(switched.name).c_str(),
                      switched.enabled ? "starts by itself" : "doesn't start by itself",
                      switched.state.c_str());
        }
        throw;
      }
      std::printf("%s  %s (%s)\n", displayText(switched.name).c_str(),
                  switched.enabled ? "starts by itself" : "doesn't start by itself",
                  switched.state.c_str());
      return;
    }
    if (*json) {
      scan.writeJson(
          [](std::string_view piece) { std::fwrite(piece.data(), 1, piece.size(), stdout); });
      return;
    }
    if (!*all) std::erase_if(items, [](const auto& item) { return !isSwitchable(item); });
    Origins origins;
    std::size_t on = 0;
    for (const auto& item : items) {
      bool enabled = item.isAutoStartEnabled();
      on += enabled ? 1 : 0;
      auto origin = origins.of(item);
      std::string from = origin.origin == "package" ? "package " + origin.package : origin.origin;
      std::printf("%-12s  %-3s  %s  (%s, %s%s)\n", typeText(item.itemType).c_str(),
                  enabled ? "on" : "off", displayText(labelOf(item).value_or(item.url)).c_str(),
                  item.state().c_str(), displayText(from).c_str(),
                  isProtected(item) ? ", protected" : "");
      std::printf("    %s\n", displayText(item.url).c_str());
      if (auto runs = item.runs()) std::printf("    runs %s\n", displayText(*runs).c_str());
    }
    std::printf("%zu startup items, %zu start by themselves%s\n", items.size(), on,
                *all ? "" : " (--all lists the units no one switches too)");
  });
}

}  // namespace cli
