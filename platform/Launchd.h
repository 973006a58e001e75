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
// The same for one domain alone: a unit of the same name in another domain has its own table.
std::string printDisabled(ProcessRunner& runner, const Locations& locations, Domain domain);

// Enables or disables the unit `label` of `domain` with systemctl. A global or system unit needs
// root: as another user nothing is run and the answer is false. False too where it can't be done
// at all (the user's units below a root) and for a label that isn't a unit's name. True when
// systemctl did it.
bool setEnabled(ProcessRunner& runner, const Locations& locations, Domain domain,
                const std::string& label, bool enabled);

// Whether `label` can only be a unit's name: a type suffix, no "/" (systemctl would take a path
// as a unit file to link), no leading "-" (an option), no NUL, no blank or control character.
// Escapes such as "\x2d" are part of names ("system-systemd\x2dcryptsetup.slice").
bool isUnitName(const std::string& label);

// The units of a unit folder as the launch-item finder lists them, sorted: its files and links,
// without the folders beside them (.wants, .requires, drop-in .d) and without aliases (a link
// under another unit's name, which enabling that unit made). A link to /dev/null is a masked
// unit, and is listed.
std::vector<std::string> listedUnits(const std::string& folder);

// The state systemctl gives `label` in `domain` ("enabled", "disabled", "static", "masked", ...),
// read in that domain alone; nothing when systemctl can't say.
std::optional<std::string> unitState(ProcessRunner& runner, const Locations& locations,
                                     Domain domain, const std::string& label);

// For a state of `systemctl is-enabled`: true when the unit is switched on, false when it is
// switched off or masked, nothing when it can't be switched (static, indirect, generated, ...).
std::optional<bool> isSwitchedOn(const std::string& state);

// The folders the units of `domain` are read from, in systemd's order of precedence.
const std::vector<std::string>& unitFolders(const Locations& locations, Domain domain);

// One line of `systemctl list-unit-files`: the unit and its state as systemctl words it
// ("enabled", "disabled", "static", "masked", "generated", "indirect", "alias", ...).
struct UnitFileState {
  std::string name;
  std::string state;
};

// Every unit file of `domain` with its state, read in that domain alone (as `printDisabled`
// reads it). Lines that aren't a unit's name and a state are skipped.
std::vector<UnitFileState> unitFileStates(ProcessRunner& runner, const Locations& locations,
                                          Domain domain);
// The same from `systemctl list-unit-files --no-legend` text.
std::vector<UnitFileState> parseUnitFileStates(const std::string& listUnitFiles);

// The instances of templates that are enabled in `domain`: "getty@tty1.service" for a link of
// that name in a ".wants", ".requires" or ".upholds" folder of one of the domain's folders.
// systemctl lists only the template ("indirect"). Sorted, without repeats.
std::vector<std::string> enabledInstances(const Locations& locations, Domain domain);

// "foo@.service" for "foo@bar.service"; nothing for a unit that is no instance.
std::optional<std::string> templateOf(const std::string& label);

// The file of the unit `label` in `domain`: the first of the domain's folders that has an entry
// of that name (a file, or a link as it stands, but no alias), else, for an instance, its
// template's. Nothing when no folder has it (a generated or transient unit, an alias).
std::optional<std::string> unitFilePath(const Locations& locations, Domain domain,
                                        const std::string& label);

// The units never switched from here: the service manager's own ("systemd-*"), consoles and root
// shells (getty, serial-getty, autovt, debug-shell, emergency, rescue), the message bus, the
// display managers and the remote shell.
bool isProtectedUnit(const std::string& label);

// When the timer `label` of `domain` elapses next, as systemctl prints it, where a service
// manager runs that can say; nothing otherwise.
std::optional<std::string> nextElapse(ProcessRunner& runner, const Locations& locations,
                                      Domain domain, const std::string& label);

// What a unit file runs: the first ExecStart= of its [Service] section, or of any section for
// other unit types. Nothing for what can't be read.
std::optional<std::string> unitCommand(const std::string& path);
// The same, from a unit file's text.
std::optional<std::string> unitCommandIn(std::string_view content);

}  // namespace platform::launchd
