#pragma once

// The enabled state of the launch items that a service manager runs, kept in memory: one table
// per domain (the user's, every user's, the system's) from label to the manager's "disabled"
// flag, read at first use and again after each change made here. A unit of the same name in two
// domains has a state in each. A label missing from its domain's table counts as not enabled.
//
// Queries read the table and start no process; a reload or a change runs the service manager's
// tool and blocks for it. Used from one thread at a time (the host's main thread).

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/Launchd.h"
#include "platform/Process.h"

namespace launch {

class ItemsStatusManager {
 public:
  // The process's instance, loaded at first use.
  static ItemsStatusManager& shared();

  explicit ItemsStatusManager(std::shared_ptr<platform::ProcessRunner> runner);

  // Reads the table again, through `runner`.
  void reloadDisabledItems();

  // Runs the tool that switches `label` of `domain` on or off, then reloads. A global or system
  // unit needs root: as another user the privileged helper switches it, if one is installed.
  // True only when the table read back after the change says what was asked. Called on the main
  // thread, which it drains while the helper answers.
  bool change(bool enabled, const std::string& label, platform::launchd::Domain domain);

  // Where the table comes from; a host or a test may give another runner, then reload.
  void setProcessRunner(std::shared_ptr<platform::ProcessRunner> runner);

  // The table of `launchctl print-disabled` output: each line `"label" => true|false`, tabs and
  // all, gives label and flag; a line of any other form (the heading, the closing brace, a
  // label holding a colon, a value of another word) gives nothing. A later line for a label
  // replaces an earlier one.
  static std::unordered_map<std::string, bool> parseDisabled(const std::string& output);

  // The standard output of `path` run with `arguments`, as text; "" when it can't be run.
  std::string runCommand(const std::string& path, const std::vector<std::string>& arguments);

  // The table of `domain`.
  const std::unordered_map<std::string, bool>& disabledItemsIn(
      platform::launchd::Domain domain) const {
    return disabledItems[static_cast<std::size_t>(domain)];
  }

  // The state systemctl words for `label` in `domain` ("enabled", "static", "masked", ...), as
  // read with the table; nothing for a label it didn't list.
  std::optional<std::string> stateIn(platform::launchd::Domain domain,
                                     const std::string& label) const;
  // Every unit of `domain` with its state, in the order systemctl listed them.
  const std::vector<platform::launchd::UnitFileState>& unitsIn(
      platform::launchd::Domain domain) const {
    return units[static_cast<std::size_t>(domain)];
  }

  // Indexed by `platform::launchd::Domain`.
  std::array<std::unordered_map<std::string, bool>, 3> disabledItems;
  std::array<std::vector<platform::launchd::UnitFileState>, 3> units;

 private:
  std::shared_ptr<platform::ProcessRunner> runner_;
};

}  // namespace launch
