#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <set>
#include <unordered_map>

#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "host/Host.h"
#include "launch/ItemsStatusManager.h"
#include "launch/LaunchItem.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Launchd.h"
#include "platform/Locations.h"
#include "platform/Packages.h"
#include "platform/Process.h"

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

const char* domainText(const launch::LaunchItem& item) {
  auto domain = item.domain();
  if (!domain) return "login";
  switch (*domain) {
    case platform::launchd::Domain::user:
      return "user";
    case platform::launchd::Domain::global:
      return "global";
    case platform::launchd::Domain::system:
      break;
  }
  return "system";
}

bool isProtected(const launch::LaunchItem& item) {
  auto label = item.getPlistItemLabel();
  return item.domain() && label && platform::launchd::isProtectedUnit(*label);
}

// What a user can switch: a unit that is enabled or disabled (or whose state systemctl can't
// tell), and every login item. Static, masked, generated, indirect units and aliases are listed
// with --all.
bool isSwitchable(const launch::LaunchItem& item) {
  if (!item.domain()) return true;
  static const std::set<std::string> kSwitchable = {"enabled", "enabled-runtime", "disabled",
                                                    "linked",  "linked-runtime",  "unknown"};
  return kSwitchable.count(item.state()) > 0;
}

// Where an item comes from: the package that ships its file, the administrator, the user, or
// the service manager's generators.
struct Origin {
  std::string origin;
  std::string package;
};

class Origins {
 public:
  Origin of(const launch::LaunchItem& item) {
    if (!platform::fileExists(item.url, platform::Follow::no)) {
      // An instance has its template's origin; a unit with no file was generated.
      auto label = item.getPlistItemLabel();
      auto pattern = label ? platform::launchd::templateOf(*label) : std::nullopt;
      if (!pattern) return {"generated", ""};
      return of(platform::joinPath(platform::deletingLastPathComponent(item.url), *pattern));
    }
    return of(item.url);
  }

 private:
  Origin of(const std::string& path) {
    const auto& locations = platform::currentLocations();
    std::string system = path;
    if (!locations.root.empty() && locations.root != "/" && path.starts_with(locations.root)) {
      system = path.substr(locations.root.size());
    }
    if (!files_) {
      files_ = platform::packageFiles(locations.packages, [](std::string_view file) {
        return file.find("/systemd/") != std::string_view::npos ||
               file.find("/autostart/") != std::string_view::npos;
      });
    }
    if (auto package = platform::packageOf(*files_, system); !package.empty()) {
      return {"package", package};
    }
    for (const auto* folders : {&locations.userUnitFolders}) {
      for (const auto& folder : *folders) {
        if (path.starts_with(folder + "/")) return {"user", ""};
      }
    }
    if (!locations.autostart.empty() && path.starts_with(locations.autostart.front() + "/")) {
      return {"user", ""};
    }
    if (path.starts_with(locations.home + "/")) return {"user", ""};
    return {"administrator", ""};
  }

  std::optional<std::unordered_map<std::string, std::string>> files_;
};

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
    auto items = findItems();
    if (changing) {
      std::vector<launch::LaunchItem*> matches;
      const std::string asPath = name.find('/') != std::string::npos ? absolutePath(name) : name;
      for (auto& item : items) {
        if (labelOf(item) == name || item.url == asPath) matches.push_back(&item);
      }
      // An instance of a template that is listed (one switched off, or never switched on).
      std::optional<launch::LaunchItem> instance;
      if (auto pattern = platform::launchd::templateOf(name); matches.empty() && pattern) {
        for (auto& item : items) {
          if (item.domain() && labelOf(item) == *pattern) {
            instance.emplace(
                platform::joinPath(platform::deletingLastPathComponent(item.url), name),
                item.itemType);
            matches.push_back(&*instance);
            break;
          }
        }
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
      if (isProtected(item)) {
        throw CommandError{kFailure, fmt::format("{}: a unit the system needs; not switched from "
                                                 "here",
                                                 displayText(name))};
      }
      item.setAutoStartEnabled(wanted);
      const bool now = item.isAutoStartEnabled();
      std::printf("%s  %s (%s)\n", displayText(labelOf(item).value_or(item.url)).c_str(),
                  now ? "starts by itself" : "doesn't start by itself", item.state().c_str());
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
    if (!*all) std::erase_if(items, [](const auto& item) { return !isSwitchable(item); });
    Origins origins;
    auto runner = platform::makeProcessRunner();
    if (*json) {
      nlohmann::json list = nlohmann::json::array();
      for (const auto& item : items) {
        auto label = labelOf(item);
        auto runs = item.runs();
        auto origin = origins.of(item);
        std::optional<std::string> next;
        if (item.domain() && label) {
          next = platform::launchd::nextElapse(*runner, platform::currentLocations(),
                                               *item.domain(), *label);
        }
        list.push_back({{"type", typeText(item.itemType)},
                        {"label", label ? nlohmann::json(jsonText(*label)) : nlohmann::json()},
                        {"path", jsonText(item.url)},
                        {"runs", runs ? nlohmann::json(jsonText(*runs)) : nlohmann::json()},
                        {"enabled", item.isAutoStartEnabled()},
                        {"domain", domainText(item)},
                        {"state", item.state()},
                        {"origin", origin.origin},
                        {"package", origin.package.empty() ? nlohmann::json()
                                                           : nlohmann::json(origin.package)},
                        {"protected", isProtected(item)},
                        {"next", next ? nlohmann::json(jsonText(*next)) : nlohmann::json()}});
      }
      std::puts(nlohmann::json{{"items", list}}.dump().c_str());
      return;
    }
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
