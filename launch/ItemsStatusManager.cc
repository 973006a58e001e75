#include "launch/ItemsStatusManager.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <unordered_set>

#include "helper/HelperConnection.h"
#include "platform/Dispatch.h"
#include "platform/Locations.h"

namespace launch {

namespace {

std::string trimmed(const std::string& text) {
  const char* space = " \t\r\n\v\f";
  std::size_t first = text.find_first_not_of(space);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(space) - first + 1);
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
  return text;
}

}  // namespace

ItemsStatusManager& ItemsStatusManager::shared() {
  static auto* instance = new ItemsStatusManager(
      std::shared_ptr<platform::ProcessRunner>(platform::makeProcessRunner()));
  return *instance;
}

ItemsStatusManager::ItemsStatusManager(std::shared_ptr<platform::ProcessRunner> runner)
    : runner_(std::move(runner)) {
  reloadDisabledItems();
}

void ItemsStatusManager::setProcessRunner(std::shared_ptr<platform::ProcessRunner> runner) {
  runner_ = std::move(runner);
}

std::string ItemsStatusManager::runCommand(const std::string& path,
                                           const std::vector<std::string>& arguments) {
  auto output = runner_->run(path, arguments);
  return output ? output->standardOutput : "";
}

std::unordered_map<std::string, bool> ItemsStatusManager::parseDisabled(const std::string& output) {
  std::string text = replaced(replaced(output, "\t", ""), "=>", ":");
  std::unordered_map<std::string, bool> table;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line.find(':') == std::string::npos ||
        (line.find("true") == std::string::npos && line.find("false") == std::string::npos)) {
      continue;
    }
    std::vector<std::string> pieces;
    std::size_t start = 0;
    while (start <= line.size()) {
      std::size_t colon = line.find(':', start);
      if (colon == std::string::npos) colon = line.size();
      if (colon > start) pieces.push_back(line.substr(start, colon - start));
      start = colon + 1;
    }
    if (pieces.size() != 2) continue;
    std::string key = trimmed(replaced(pieces[0], "\"", ""));
    table[key] = trimmed(pieces[1]) == "true";
  }
  return table;
}

void ItemsStatusManager::reloadDisabledItems() {
  // Linux has no user-domain argument to pass: the rendering covers the user's units, the
  // units of every user and the system's, each from its own source.
  // One listing per domain gives both the states and the table, which is rendered in the
  // grammar of `launchctl print-disabled` and read back by the one parser.
  using platform::launchd::Domain;
  for (Domain domain : {Domain::user, Domain::global, Domain::system}) {
    const auto index = static_cast<std::size_t>(domain);
    const auto& locations = platform::currentLocations();
    units[index] = platform::launchd::unitFileStates(*runner_, locations, domain);
    // systemctl lists a template alone ("indirect"); its enabled instances are the links.
    std::unordered_set<std::string> listed;
    for (const auto& unit : units[index]) listed.insert(unit.name);
    for (auto& instance : platform::launchd::enabledInstances(locations, domain)) {
      if (listed.insert(instance).second) {
        units[index].push_back(platform::launchd::UnitFileState{std::move(instance), "enabled"});
      }
    }
    std::string table = "disabled services = {\n";
    for (const auto& unit : units[index]) {
      if (unit.name.find('"') != std::string::npos) continue;
      if (auto on = platform::launchd::isSwitchedOn(unit.state)) {
        table += "\t\"" + unit.name + "\" => " + (*on ? "false" : "true") + "\n";
      }
    }
    disabledItems[index] = parseDisabled(table + "}\n");
  }
}

std::optional<std::string> ItemsStatusManager::stateIn(platform::launchd::Domain domain,
                                                       const std::string& label) const {
  for (const auto& unit : unitsIn(domain)) {
    if (unit.name == label) return unit.state;
  }
  return std::nullopt;
}

namespace {

// Asks the privileged helper to switch a system unit, waiting for its answer while the main
// queue, where the connection's handlers run, is drained. False without a helper.
bool changeThroughHelper(bool enabled, const std::string& label, bool global) {
  auto connection = helper::HelperConnection::create();
  if (!connection->connect(false) || !connection->helper) return false;
  struct Answer {
    std::atomic<bool> given{false};
    std::atomic<bool> done{false};
  };
  auto answer = std::make_shared<Answer>();
  connection->errorHandler = [answer] { answer->given = true; };
  connection->helper->setUnitEnabled(label, global, enabled, [answer](bool done) {
    answer->done = done;
    answer->given = true;
  });
  platform::runMainUntil([&] { return answer->given.load(); }, std::chrono::minutes(1));
  connection->close();
  return answer->done.load();
}

}  // namespace

bool ItemsStatusManager::change(bool enabled, const std::string& label,
                                platform::launchd::Domain domain) {
  using platform::launchd::Domain;
  const auto& locations = platform::currentLocations();
  if (domain != Domain::user && ::geteuid() != 0 && locations.root.empty()) {
    // A unit of the system needs root: the helper has it, and answers with the state it read
    // back. Below a root there is no helper to ask, as it serves this system only.
    bool done = changeThroughHelper(enabled, label, domain == Domain::global);
    reloadDisabledItems();
    return done;
  }
  bool done = platform::launchd::setEnabled(*runner_, locations, domain, label, enabled);
  reloadDisabledItems();
  // What the service manager says now decides, not what the tool answered.
  const auto& table = disabledItemsIn(domain);
  auto found = table.find(label);
  return done && found != table.end() && found->second != enabled;
}

}  // namespace launch
