#include "helper/tool/UnitPolicy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "helper/Protocols.h"
#include "platform/Files.h"

namespace helper {

namespace {

using platform::launchd::Domain;

constexpr char kRecordName[] = "disabled-units";
constexpr std::size_t kMaxRecordBytes = 1024 * 1024;

const char* domainWord(Domain domain) { return domain == Domain::global ? "global" : "system"; }

// The unit's name before its instance and type: "getty" for "getty@tty1.service".
std::string baseName(const std::string& label) {
  return label.substr(0, std::min(label.find('@'), label.rfind('.')));
}

// "foo@.service" for "foo@bar.service"; nothing for a unit that is no instance.
std::optional<std::string> templateOf(const std::string& label) {
  std::size_t at = label.find('@');
  std::size_t dot = label.rfind('.');
  if (at == std::string::npos || dot == std::string::npos || dot <= at + 1) return std::nullopt;
  return label.substr(0, at + 1) + label.substr(dot);
}

bool isListed(const std::string& label, const std::string& folder) {
  auto units = platform::launchd::listedUnits(folder);
  auto listed = [&](const std::string& name) {
    return std::find(units.begin(), units.end(), name) != units.end();
  };
  if (listed(label)) return true;
  auto pattern = templateOf(label);
  return pattern && listed(*pattern);
}

}  // namespace

bool isProtectedUnit(const std::string& label) {
  static const std::array<const char*, 21> kNames = {"debug-shell",
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
  const std::string base = baseName(label);
  if (std::find(kNames.begin(), kNames.end(), base) != kNames.end()) return true;
  for (const char* prefix : {"systemd-", "dbus-", kServiceName, kOlderServiceName}) {
    if (label.starts_with(prefix)) return true;
  }
  return false;
}

DisabledUnitsRecord::DisabledUnitsRecord(std::string folder) : folder_(std::move(folder)) {}

std::set<std::string> DisabledUnitsRecord::read() const {
  std::set<std::string> entries;
  auto text = platform::readRegularFile(platform::joinPath(folder_, kRecordName), kMaxRecordBytes);
  if (!text.ok()) return entries;
  std::istringstream lines(*text);
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty()) entries.insert(line);
  }
  return entries;
}

bool DisabledUnitsRecord::contains(Domain domain, const std::string& label) const {
  return read().count(std::string(domainWord(domain)) + " " + label) > 0;
}

bool DisabledUnitsRecord::set(Domain domain, const std::string& label, bool disabledHere) {
  auto entries = read();
  const std::string entry = std::string(domainWord(domain)) + " " + label;
  if (disabledHere ? !entries.insert(entry).second : entries.erase(entry) == 0) return true;
  if (::mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST) return false;
  // Written beside the record and renamed over it: a reader sees the old record or the new one.
  const std::string path = platform::joinPath(folder_, kRecordName);
  const std::string temporary = path + ".new";
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  std::string text;
  for (const auto& line : entries) text += line + "\n";
  bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  written = ::fsync(fd) == 0 && written;
  ::close(fd);
  if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

std::optional<std::string> unitRefusal(const std::string& label, Domain domain, bool enabled,
                                       const platform::Locations& locations,
                                       const DisabledUnitsRecord& record) {
  if (!platform::launchd::isUnitName(label)) return "not the name of a unit";
  if (domain == Domain::user) return "a user's own unit needs no helper";
  if (isProtectedUnit(label)) return "a unit the system needs";
  const std::string& folder =
      domain == Domain::global ? locations.globalUserUnits : locations.systemUnits;
  if (isListed(label, folder)) return std::nullopt;
  if (enabled && record.contains(domain, label)) return std::nullopt;
  return enabled ? "neither the administrator's unit nor one switched off here"
                 : "not a startup item that ravelin lists";
}

bool switchUnit(platform::ProcessRunner& runner, const platform::Locations& locations,
                DisabledUnitsRecord& record, Domain domain, const std::string& label,
                bool enabled) {
  if (unitRefusal(label, domain, enabled, locations, record)) return false;
  platform::launchd::setEnabled(runner, locations, domain, label, enabled);
  // What systemctl says now, not what it answered, decides.
  auto state = platform::launchd::unitState(runner, locations, domain, label);
  bool done = state && platform::launchd::isSwitchedOn(*state) == enabled;
  if (done) record.set(domain, label, !enabled);
  return done;
}

}  // namespace helper
