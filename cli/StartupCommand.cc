#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "cli/Host.h"
#include "launch/ItemsStatusManager.h"
#include "launch/LaunchItem.h"
#include "platform/Dispatch.h"

namespace cli {

namespace {

std::string typeText(const launch::LaunchItemType& type) {
  if (std::holds_alternative<launch::AppLoginItem>(type)) return "login-item";
  if (std::holds_alternative<launch::UserAgent>(type)) return "user-agent";
  if (std::holds_alternative<launch::GlobalAgent>(type)) return "global-agent";
  return "daemon";
}

// The name an item is known by: a unit's or property list's label, a login item's identifier.
std::optional<std::string> labelOf(const launch::LaunchItem& item) {
  if (std::holds_alternative<launch::AppLoginItem>(item.itemType)) {
    if (item.bundleId().empty()) return std::nullopt;
    return item.bundleId();
  }
  return item.getPlistItemLabel();
}

class Gatherer final : public launch::LaunchItemsFinderDelegate {
 public:
  void launchItemsFinderDidFind(const std::vector<launch::LaunchItem>& found) override {
    items = found;
    done = true;
  }
  std::vector<launch::LaunchItem> items;
  bool done = false;
};

std::vector<launch::LaunchItem> findItems() {
  auto gatherer = std::make_shared<Gatherer>();
  auto finder = launch::makeLaunchItemsFinder(gatherer);
  finder->start();
  platform::runMainUntil([&] { return gatherer->done; }, std::chrono::minutes(5));
  // Units first, by type and label; login items after them.
  std::stable_sort(
      gatherer->items.begin(), gatherer->items.end(), [](const auto& a, const auto& b) {
        auto rank = [](const launch::LaunchItem& item) { return item.itemType.index(); };
        if (rank(a) != rank(b)) return rank(a) > rank(b);
        return labelOf(a).value_or(a.url) < labelOf(b).value_or(b.url);
      });
  return gatherer->items;
}

}  // namespace

void addStartupCommand(CLI::App& app) {
  auto* command = app.add_subcommand("startup", "What starts by itself, and switching it off");
  auto json = std::make_shared<bool>(false);
  auto disable = std::make_shared<std::string>();
  auto enable = std::make_shared<std::string>();
  command->add_flag("--json", *json,
                    "Print {\"items\": [{\"type\", \"label\", \"path\", \"runs\", \"enabled\"}]}");
  auto* disableOption = command->add_option("--disable", *disable,
                                            "Keep NAME (a label, or a path as listed) "
                                            "from starting by itself");
  auto* enableOption = command->add_option("--enable", *enable, "Let NAME start by itself again");
  disableOption->excludes(enableOption);
  command->footer(
      "Types: login-item (an autostart entry of the desktop), user-agent (a systemd unit of\n"
      "yours), global-agent (a unit every user's session runs), daemon (a system unit).\n"
      "Switching a global agent or a daemon needs root: as another user the privileged helper\n"
      "does it if it is installed, else it fails with exit status 1. A login item is switched by "
      "writing your own autostart entry (Hidden=true over\n"
      "a system one); the system's files are never changed.");
  command->callback([=] {
    const bool changing = !disable->empty() || !enable->empty();
    const std::string name = !disable->empty() ? *disable : *enable;
    if ((disableOption->count() > 0 || enableOption->count() > 0) && name.empty()) {
      throw CommandError{kUsage, "--enable/--disable: an empty name"};
    }
    auto items = findItems();
    if (changing) {
      std::vector<launch::LaunchItem*> matches;
      const std::string asPath = name.find('/') != std::string::npos ? absolutePath(name) : name;
      for (auto& item : items) {
        if (labelOf(item) == name || item.url == asPath) matches.push_back(&item);
      }
      if (matches.empty()) {
        throw CommandError{kUsage, fmt::format("{}: no such startup item", displayText(name))};
      }
      if (matches.size() > 1) {
        throw CommandError{kUsage, fmt::format("{}: {} items have this name; give the path",
                                               displayText(name), matches.size())};
      }
      launch::LaunchItem& item = *matches.front();
      const bool wanted = disable->empty();
      item.setAutoStartEnabled(wanted);
      const bool now = item.isAutoStartEnabled();
      std::printf("%s  %s\n", displayText(labelOf(item).value_or(item.url)).c_str(),
                  now ? "starts by itself" : "doesn't start by itself");
      if (now != wanted) {
        bool system = std::holds_alternative<launch::GlobalAgent>(item.itemType) ||
                      std::holds_alternative<launch::GlobalDaemon>(item.itemType);
        throw CommandError{kFailure, system && ::geteuid() != 0
                                         ? "not changed: a system unit needs root or the "
                                           "privileged helper (ravelin helper install)"
                                         : "not changed"};
      }
      return;
    }
    if (*json) {
      nlohmann::json list = nlohmann::json::array();
      for (const auto& item : items) {
        auto label = labelOf(item);
        auto runs = item.runs();
        list.push_back({{"type", typeText(item.itemType)},
                        {"label", label ? nlohmann::json(jsonText(*label)) : nlohmann::json()},
                        {"path", jsonText(item.url)},
                        {"runs", runs ? nlohmann::json(jsonText(*runs)) : nlohmann::json()},
                        {"enabled", item.isAutoStartEnabled()}});
      }
      std::puts(nlohmann::json{{"items", list}}.dump().c_str());
      return;
    }
    std::size_t on = 0;
    for (const auto& item : items) {
      bool enabled = item.isAutoStartEnabled();
      on += enabled ? 1 : 0;
      std::printf("%-12s  %-3s  %s\n", typeText(item.itemType).c_str(), enabled ? "on" : "off",
                  displayText(labelOf(item).value_or(item.url)).c_str());
      std::printf("    %s\n", displayText(item.url).c_str());
      if (auto runs = item.runs()) std::printf("    runs %s\n", displayText(*runs).c_str());
    }
    std::printf("%zu startup items, %zu start by themselves\n", items.size(), on);
  });
}

}  // namespace cli
