#pragma once

// Services that start by themselves, and their enablement: on Linux, systemd units. User agents
// are the user's own units, global agents the units every user's manager runs, daemons the
// system's units. The enablement table is rendered in the grammar of `launchctl
// print-disabled`, one `"label" => true|false` line per unit (true: disabled), so one parser
// reads it on every platform; a unit's label is its file name.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Locations.h"
#include "platform/Process.h"

namespace platform::launchd {

enum class Domain { user, global, system };

// `systemctl list-unit-files --no-legend` text (UNIT STATE [PRESET] per line) as
// `"label" => true|false` lines: enabled and linked units false, disabled and masked units true;
// static, indirect, generated and unknown states have no line (they can't be switched). Lines
// that aren't a unit and a state are skipped.
std::string renderDisabled(const std::string& listUnitFiles);

// The table of every domain, as `launchctl print-disabled` prints one. With a root in
// `locations`, systemctl reads the units below it (--root); so it does where no service manager
// answers. The user's own units below a root are read from their folder's .wants links, since
// systemctl has no such mode.
std::string printDisabled(ProcessRunner& runner, const Locations& locations);

// Enables or disables the unit `label` of `domain` with systemctl. A global or system unit needs
// root: as another user nothing is run and the answer is false. False too where it can't be done
// at all (the user's units below a root) and for a label that isn't a unit's name. True when
// systemctl did it.
bool setEnabled(ProcessRunner& runner, const Locations& locations, Domain domain,
                const std::string& label, bool enabled);

// What a unit file runs: the first ExecStart= of its [Service] section, or of any section for
// other unit types. Nothing for what can't be read.
std::optional<std::string> unitCommand(const std::string& path);
// The same, from a unit file's text.
std::optional<std::string> unitCommandIn(std::string_view content);

}  // namespace platform::launchd
