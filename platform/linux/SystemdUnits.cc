#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "platform/Files.h"
#include "platform/Launchd.h"

namespace platform::launchd {

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";
constexpr std::size_t kMaxUnitFileBytes = 1024 * 1024;

std::vector<std::string> words(const std::string& line) {
  std::vector<std::string> out;
  std::istringstream stream(line);
  std::string word;
  while (stream >> word) out.push_back(word);
  return out;
}

std::string listUnitFiles(ProcessRunner& runner, std::vector<std::string> scope) {
  scope.insert(scope.end(), {"list-unit-files", "--no-legend", "--no-pager", "--full"});
  auto output = runner.run(kSystemctl, scope);
  if (!output || output->exitStatus != 0) return "";
  return output->standardOutput;
}

// The text of a unit file, its links followed inside `root` when there is one (a unit linked to
// /lib/... below a mounted system is that system's file, never this machine's).
std::optional<std::string> readUnitFile(const std::string& path, const std::string& root) {
  std::string file = path;
  if (!root.empty() && root != "/") {
    if (path != root && !path.starts_with(root + "/")) return std::nullopt;
    auto resolved = resolveInRoot(root, path.substr(root.size()));
    if (!resolved) return std::nullopt;
    file = *resolved;
  }
  auto content = readRegularFile(file, kMaxUnitFileBytes);
  if (!content.ok()) return std::nullopt;
  return std::move(*content);
}

// A service manager answers when systemd runs the system.
bool managerRuns() { return isDirectory("/run/systemd/system"); }

// The user's own units below a root, read from their folder: a unit linked into a .wants or
// .requires folder is enabled; one with an [Install] section and no link is disabled.
std::string userUnitsBelowRoot(const Locations& locations) {
  std::set<std::string> linked;
  auto folders = listDirectory(locations.userUnits);
  if (!folders.ok()) return "";
  for (const auto& folder : *folders) {
    if (!folder.isDirectory() ||
        !(folder.name.ends_with(".wants") || folder.name.ends_with(".requires"))) {
      continue;
    }
    auto links = listDirectory(joinPath(locations.userUnits, folder.name));
    if (!links.ok()) continue;
    for (const auto& link : *links) linked.insert(link.name);
  }
  std::string text;
  for (const auto& unit : *folders) {
    if (unit.isDirectory()) continue;
    std::string state;
    if (linked.count(unit.name)) {
      state = "enabled";
    } else if (auto content =
                   readUnitFile(joinPath(locations.userUnits, unit.name), locations.root);
               content && content->find("[Install]") != std::string::npos) {
      state = "disabled";
    }
    if (!state.empty()) text += unit.name + " " + state + "\n";
  }
  return text;
}

}  // namespace

std::vector<UnitFileState> parseUnitFileStates(const std::string& listUnitFiles) {
  std::vector<UnitFileState> states;
  std::istringstream stream(listUnitFiles);
  std::string line;
  while (std::getline(stream, line)) {
    auto fields = words(line);
    if (fields.size() < 2 || !isUnitName(fields[0])) continue;
    states.push_back(UnitFileState{fields[0], fields[1]});
  }
  return states;
}

std::string renderDisabled(const std::string& listUnitFiles) {
  static const std::set<std::string> kEnabled = {"enabled", "enabled-runtime", "linked",
                                                 "linked-runtime", "alias"};
  static const std::set<std::string> kDisabled = {"disabled", "masked", "masked-runtime"};
  std::string out;
  std::istringstream stream(listUnitFiles);
  std::string line;
  while (std::getline(stream, line)) {
    auto fields = words(line);
    if (fields.size() < 2) continue;
    const std::string& unit = fields[0];
    // A unit name has a type suffix and no quote, which the grammar couldn't carry.
    if (unit.find('.') == std::string::npos || unit.find('"') != std::string::npos) continue;
    if (kEnabled.count(fields[1])) {
      out += "\t\"" + unit + "\" => false\n";
    } else if (kDisabled.count(fields[1])) {
      out += "\t\"" + unit + "\" => true\n";
    }
  }
  return out;
}

namespace {

// The `list-unit-files` text of one domain.
std::string domainListing(ProcessRunner& runner, const Locations& locations, Domain domain) {
  std::string listing;
  switch (domain) {
    case Domain::system:
      if (!locations.root.empty()) {
        listing = listUnitFiles(runner, {"--root=" + locations.root});
      } else {
        listing = listUnitFiles(runner, {});
        if (listing.empty() && !managerRuns()) listing = listUnitFiles(runner, {"--root=/"});
      }
      break;
    case Domain::global:
      listing = locations.root.empty()
                    ? listUnitFiles(runner, {"--global"})
                    : listUnitFiles(runner, {"--global", "--root=" + locations.root});
      break;
    case Domain::user:
      // Without a user manager to ask (no session, below a root), the folder says it.
      if (locations.root.empty()) listing = listUnitFiles(runner, {"--user"});
      if (listing.empty()) listing = userUnitsBelowRoot(locations);
      break;
  }
  return listing;
}

}  // namespace

std::string printDisabled(ProcessRunner& runner, const Locations& locations, Domain domain) {
  return "disabled services = {\n" + renderDisabled(domainListing(runner, locations, domain)) +
         "}\n";
}

std::vector<UnitFileState> unitFileStates(ProcessRunner& runner, const Locations& locations,
                                          Domain domain) {
  return parseUnitFileStates(domainListing(runner, locations, domain));
}

const std::vector<std::string>& unitFolders(const Locations& locations, Domain domain) {
  switch (domain) {
    case Domain::user:
      return locations.userUnitFolders;
    case Domain::global:
      return locations.globalUnitFolders;
    case Domain::system:
      break;
  }
  return locations.systemUnitFolders;
}

std::optional<std::string> templateOf(const std::string& label) {
  std::size_t at = label.find('@');
  std::size_t dot = label.rfind('.');
  if (at == std::string::npos || dot == std::string::npos || dot <= at + 1) return std::nullopt;
  return label.substr(0, at + 1) + label.substr(dot);
}

std::vector<std::string> enabledInstances(const Locations& locations, Domain domain) {
  std::set<std::string> found;
  for (const auto& folder : unitFolders(locations, domain)) {
    auto entries = listDirectory(folder);
    if (!entries.ok()) continue;
    for (const auto& entry : *entries) {
      if (!entry.isDirectory() ||
          !(entry.name.ends_with(".wants") || entry.name.ends_with(".requires") ||
            entry.name.ends_with(".upholds"))) {
        continue;
      }
      auto links = listDirectory(joinPath(folder, entry.name));
      if (!links.ok()) continue;
      for (const auto& link : *links) {
        if (isUnitName(link.name) && templateOf(link.name)) found.insert(link.name);
      }
    }
  }
  return {found.begin(), found.end()};
}

std::optional<std::string> unitFilePath(const Locations& locations, Domain domain,
                                        const std::string& label) {
  if (!isUnitName(label)) return std::nullopt;
  std::vector<std::string> names{label};
  if (auto pattern = templateOf(label)) names.push_back(*pattern);
  for (const auto& name : names) {
    for (const auto& folder : unitFolders(locations, domain)) {
      std::string path = joinPath(folder, name);
      auto status = fileStatus(path, Follow::no);
      if (!status.ok()) continue;
      if (status->type == FileType::symbolicLink) {
        // An alias (a link under another unit's name) is that unit's; a masked unit is itself.
        std::vector<char> target(4096);
        ssize_t length = ::readlink(path.c_str(), target.data(), target.size() - 1);
        std::string to =
            length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
        if (to != "/dev/null" && lastPathComponent(to) != name) continue;
      }
      return path;
    }
  }
  return std::nullopt;
}

bool isProtectedUnit(const std::string& label) {
  static const std::set<std::string> kNames = {"debug-shell",
                                               "emergency",
                                               "rescue",
                                               "getty",
                                               "serial-getty",
                                               "autovt",
                                               "console-getty",
                                               "container-getty",
                                               "dbus",
                                               "dbus-broker",
                                               "display-manager",
                                               "gdm",
                                               "gdm3",
                                               "lightdm",
                                               "sddm",
                                               "xdm",
                                               "lxdm",
                                               "slim",
                                               "nodm",
                                               "ssh",
                                               "sshd"};
  const std::string base = label.substr(0, std::min(label.find('@'), label.rfind('.')));
  if (kNames.count(base)) return true;
  return label.starts_with("systemd-") || label.starts_with("dbus-");
}

std::optional<std::string> nextElapse(ProcessRunner& runner, const Locations& locations,
                                      Domain domain, const std::string& label) {
  if (!label.ends_with(".timer") || !isUnitName(label) || !locations.root.empty() ||
      (domain != Domain::user && !managerRuns())) {
    return std::nullopt;
  }
  std::vector<std::string> arguments;
  if (domain != Domain::system) arguments.push_back("--user");
  arguments.insert(arguments.end(),
                   {"show", "--property=NextElapseUSecRealtime", "--value", "--", label});
  auto output = runner.run(kSystemctl, arguments);
  if (!output || output->exitStatus != 0) return std::nullopt;
  std::string text = output->standardOutput;
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  if (text.empty() || text == "n/a") return std::nullopt;
  return text;
}

std::string printDisabled(ProcessRunner& runner, const Locations& locations) {
  std::string all = "disabled services = {\n";
  // The user's own units last: where a name is in two domains, the user's state counts.
  for (Domain domain : {Domain::system, Domain::global, Domain::user}) {
    std::string table = printDisabled(runner, locations, domain);
    all += table.substr(table.find('\n') + 1, table.rfind('}') - table.find('\n') - 1);
  }
  return all + "}\n";
}

bool isUnitName(const std::string& label) {
  if (label.empty() || label.size() > 256 || label.front() == '-' || label.front() == '.' ||
      label.find('.') == std::string::npos) {
    return false;
  }
  for (unsigned char c : label) {
    if (c <= ' ' || c == '/' || c == 0x7f) return false;
  }
  return true;
}

std::vector<std::string> listedUnits(const std::string& folder) {
  std::vector<std::string> names;
  auto listing = listDirectory(folder);
  if (!listing.ok()) return names;
  for (const auto& entry : *listing) {
    if (entry.isDirectory()) continue;
    if (entry.type == FileType::symbolicLink) {
      std::vector<char> target(4096);
      std::string path = joinPath(folder, entry.name);
      ssize_t length = ::readlink(path.c_str(), target.data(), target.size() - 1);
      std::string to =
          length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
      if (to != "/dev/null" && lastPathComponent(to) != entry.name) continue;
    }
    names.push_back(entry.name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

namespace {

// The arguments that put systemctl in `domain` (and below the locations' root); nothing where
// that can't be done here.
std::optional<std::vector<std::string>> domainArguments(const Locations& locations, Domain domain) {
  std::vector<std::string> arguments;
  switch (domain) {
    case Domain::user:
      if (!locations.root.empty()) return std::nullopt;
      arguments = {"--user"};
      break;
    case Domain::global:
      arguments = {"--global"};
      break;
    case Domain::system:
      break;
  }
  if (!locations.root.empty()) {
    arguments.push_back("--root=" + locations.root);
  } else if (domain == Domain::system && !managerRuns()) {
    arguments.push_back("--root=/");
  }
  return arguments;
}

}  // namespace

std::optional<std::string> unitState(ProcessRunner& runner, const Locations& locations,
                                     Domain domain, const std::string& label) {
  if (!isUnitName(label)) return std::nullopt;
  auto arguments = domainArguments(locations, domain);
  if (!arguments) return std::nullopt;
  arguments->insert(arguments->end(), {"is-enabled", "--", label});
  // is-enabled exits 1 for a unit that isn't enabled; its word says what it is.
  auto output = runner.run(kSystemctl, *arguments);
  if (!output) return std::nullopt;
  auto found = words(output->standardOutput);
  if (found.empty()) return std::nullopt;
  return found.front();
}

std::optional<bool> isSwitchedOn(const std::string& state) {
  if (state == "enabled" || state == "enabled-runtime" || state == "linked" ||
      state == "linked-runtime" || state == "alias") {
    return true;
  }
  if (state == "disabled" || state == "masked" || state == "masked-runtime") return false;
  return std::nullopt;
}

bool setEnabled(ProcessRunner& runner, const Locations& locations, Domain domain,
                const std::string& label, bool enabled) {
  // A unit's name only: systemctl takes a path as a unit file to link, and an option as one.
  if (!isUnitName(label)) return false;
  if (domain != Domain::user && ::geteuid() != 0) return false;
  auto arguments = domainArguments(locations, domain);
  if (!arguments) return false;
  arguments->push_back(enabled ? "enable" : "disable");
  arguments->push_back("--");
  arguments->push_back(label);
  auto output = runner.run(kSystemctl, *arguments);
  return output && output->exitStatus == 0;
}

std::optional<std::string> unitCommand(const std::string& path) {
  auto content = readUnitFile(path, currentLocations().root);
  if (!content) return std::nullopt;
  return unitCommandIn(*content);
}

std::optional<std::string> unitCommandIn(std::string_view content) {
  std::istringstream stream{std::string(content)};
  std::string line, section;
  std::optional<std::string> any;
  while (std::getline(stream, line)) {
    std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos) continue;
    line = line.substr(start);
    if (line.front() == '[') {
      section = line.substr(0, line.find(']') + 1);
      continue;
    }
    if (!line.starts_with("ExecStart=")) continue;
    std::string command = line.substr(10);
    while (!command.empty() && (command.back() == '\r' || command.back() == ' '))
      command.pop_back();
    // Prefixes that change how systemd runs it ("-", "@", "+", "!") aren't part of the command.
    std::size_t first = command.find_first_not_of("-@+!:");
    command = first == std::string::npos ? "" : command.substr(first);
    if (command.empty()) continue;
    if (section == "[Service]") return command;
    if (!any) any = command;
  }
  return any;
}

}  // namespace platform::launchd
