#include <fmt/format.h>

#include <cstdio>

#include "cli/Commands.h"
#include "helper/HelperConnection.h"
#include "helper/HelperInstaller.h"
#include "host/Host.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"

namespace cli {

namespace {

// Whether the helper on the socket in use answers a ping within the helper connection's own
// 3-second limit.
bool helperAnswers() {
  auto connection = helper::HelperConnection::create();
  bool failed = false;
  connection->errorHandler = [&] { failed = true; };
  if (!connection->connect(false)) return false;
  bool answered = false;
  if (auto proxy = connection->helper) {
    proxy->test(
        [&answered] { platform::DispatchQueue::main().async([&answered] { answered = true; }); });
  }
  platform::runMainUntil([&] { return answered || failed; }, std::chrono::seconds(4));
  connection->close();
  return answered && !failed;
}

void status(bool json) {
  const std::string installedPath = helper::installedToolPath(helper::kServiceName);
  bool installed = platform::fileExists(installedPath, platform::Follow::no);
  auto installedVersion = installed ? helper::readBundleVersion(installedPath) : std::nullopt;
  auto shippedVersion = helper::readBundleVersion(helper::shippedToolPath());
  bool answers = helperAnswers();
  if (json) {
    nlohmann::json out{{"installed", installed},
                       {"installed_version", nullptr},
                       {"shipped_version", nullptr},
                       {"answers", answers}};
    if (installedVersion) out["installed_version"] = jsonText(*installedVersion);
    if (shippedVersion) out["shipped_version"] = jsonText(*shippedVersion);
    std::puts(out.dump().c_str());
    return;
  }
  std::printf("installed   %s%s\n", installed ? "yes, " : "no",
              installed ? displayText(installedPath).c_str() : "");
  std::printf("versions    installed %s, shipped %s\n",
              installedVersion ? displayText(*installedVersion).c_str() : "none",
              shippedVersion ? displayText(*shippedVersion).c_str() : "none");
  std::printf("answers     %s%s\n", answers ? "yes" : "no",
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
