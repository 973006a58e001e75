#pragma once

// Which systemd units the privileged helper switches for the user it serves. It switches only
// what the launch-item finder lists (a unit of the domain's folders, the administrator's and the
// packages', or an instance of one), never a unit the system needs to boot, be reached or be
// repaired; what it can't find any more it switches on only if it switched it off itself. What it
// switched off is recorded in a root-owned file, so that it can be switched back on after the
// unit's file is gone from the listing. Every change is read back from systemctl before it is
// reported as done.

#include <optional>
#include <set>
#include <string>

#include "platform/Launchd.h"
#include "platform/Locations.h"
#include "platform/Process.h"

namespace helper {

// True for the units that are never switched from here: the helper's own, and those of
// `platform::launchd::isProtectedUnit`.
bool isProtectedUnit(const std::string& label);

// The units the helper switched off, by domain ("system" or "global") and name, kept in one file
// written whole and replaced by rename. A file that can't be read counts as empty.
class DisabledUnitsRecord {
 public:
  // The record lives in `folder`, which is made (mode 0700) when missing.
  explicit DisabledUnitsRecord(std::string folder);
  bool contains(platform::launchd::Domain domain, const std::string& label) const;
  // Adds or removes an entry; false when the record couldn't be written.
  bool set(platform::launchd::Domain domain, const std::string& label, bool disabledHere);

 private:
  std::set<std::string> read() const;
  std::string folder_;
};

// Why switching `label` of `domain` on (`enabled`) or off is refused, or nothing when it may be
// done. `locations` gives the unit folders; `record` what the helper switched off before.
std::optional<std::string> unitRefusal(const std::string& label, platform::launchd::Domain domain,
                                       bool enabled, const platform::Locations& locations,
                                       const DisabledUnitsRecord& record);

// Switches the unit when `unitRefusal` allows it, then asks systemctl for the unit's state in
// that domain: true only when the state read back is the one asked for. A unit switched off is
// added to `record`, one switched on again is removed from it.
bool switchUnit(platform::ProcessRunner& runner, const platform::Locations& locations,
                DisabledUnitsRecord& record, platform::launchd::Domain domain,
                const std::string& label, bool enabled);

}  // namespace helper
