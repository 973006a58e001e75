#include <fmt/format.h>

#include <cstdio>

#include "cli/Commands.h"
#include "helper/HelperConnection.h"
#include "helper/HelperInstaller.h"
#include "host/Helper.h"
#include "host/Host.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"

namespace cli {

namespace {

void status(bool json) {
  std::optional<nlohmann::json> out;
  helperStatus([&](nlohmann::json answer) { out = std::move(answer); });
  platform::runMainUntil([&] { return out.has_value(); }, std::chrono::seconds(10));
  if (!out) throw CommandError{kFailure, "the helper's status could not be read"};
  if (json) {
    std::puts(out->dump().c_str());
    return;
  }
  const std::string installedPath = helper::installedToolPath(helper::kServiceName);
  const bool installed = (*out)["installed"].get<bool>();
  auto version = [](const nlohmann::json& value) {
    return value.is_string() ? displayText(value.get<std::string>()) : std::string("none");
  };
  std::printf("installed   %s%s\n", installed ? "yes, " : "no",
              installed ? displayText(installedPath).c_str() : "");
  std::printf("versions    installed %s, shipped %s\n",
              version((*out)["installed_version"]).c_str(),
              version((*out)["shipped_version"]).c_str());
  std::printf("answers     %s%s\n", (*out)["answers"].get<bool>() ? "yes" : "no",
              helper::usesOwnHelperSocket() ? " (on the socket given with --helper-socket)" : "");
}

}  // namespace

void addHelperCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "helper", "The privileged helper that deletes, measures and switches units as root");
  command->require_subcommand(1, 1);
  auto json = std::make_shared<bool>(false);
  auto* statusCommand =
      command->add_subcommand("status",
                              "Whether the helper is installed, its versions, and "
                              "whether it answers");
  statusCommand->add_flag("--json", *json,
                          "Print {\"installed\", \"installed_version\", \"shipped_version\", "
                          "\"answers\"}");
  statusCommand->callback([=] { status(*json); });
  command->add_subcommand("install", "Install the helper shipped with ravelin (asks for consent)")
      ->callback([] {
        if (!helper::installHelper()) {
          throw CommandError{kFailure, "the helper could not be installed"};
        }
        std::puts("installed");
      });
  command->add_subcommand("uninstall", "Stop and remove the installed helper (asks for consent)")
      ->callback([] {
        if (!helper::uninstallHelper()) {
          throw CommandError{kFailure, "the helper could not be removed"};
        }
        std::puts("removed");
      });
}

}  // namespace cli
