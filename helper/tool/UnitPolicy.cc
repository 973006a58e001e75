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

// Whether the launch-item finder lists `label` in `domain`: a unit of one of the domain's folders,
// or an instance of one.
bool isListed(const std::string& label, const platform::Locations& locations, Domain domain) {
  return platform::launchd::unitFilePath(locations, domain, label).has_value();
}

}  // namespace

bool isProtectedUnit(const std::string& label) {
  return platform::launchd::isProtectedUnit(label) || label.starts_with(kServiceName) ||
         label.starts_with(kOlderServiceName);
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
  if (isListed(label, locations, domain)) return std::nullopt;
  if (enabled && record.contains(domain, label)) return std::nullopt;
  return enabled ? "neither a listed unit nor one switched off here"
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
