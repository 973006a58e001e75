#pragma once

// The one answer every scanner gives to "is it installed": a name counts when any installed
// application goes by it, whatever the case. Before anything is offered as a leftover or an
// orphan, it is asked here.
//
// The names of an application are its identifier (desktop-file ID, flatpak ID), the further
// identifiers the rules give it and those of its nested entries, its Name, the program its Exec
// line runs, its StartupWMClass; for a snap, the snap's name (NAME of a NAME_APP entry, and each
// folder of /snap) and SNAP_APP for any APP; for a flatpak, its ID and the ID's last part (Slack
// for com.slack.Slack); every package dpkg has installed; every command in the command folders; and
// the commands the installed packages put in a "bin" or "sbin" folder anywhere (dpkg's file lists,
// read only when a name isn't found otherwise).
//
// A value is used on one thread at a time.

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "Core/AppFileFinder.h"
#include "Core/CaseInsensitiveString.h"
#include "Core/RuleManager.h"
#include "platform/Locations.h"

namespace Core {

class InstalledApplications {
 public:
  // What `locations` show installed, with the identifiers `rules` (which may be null) add.
  // `eachApplication`, when given, is called with every application of a desktop entry.
  static InstalledApplications read(
      const platform::Locations& locations, const RuleManager* rules,
      const std::function<void(const MacApp&)>& eachApplication = nullptr);

  // Whether some installed application goes by `name`, or by an identifier the rules give it.
  bool isInstalled(const CaseInsensitiveString& name) const;

  // Where the installation of `name` shows (a desktop entry, a snap's folder, a command, a
  // package's file list); nothing when it isn't installed.
  std::optional<std::string> whereInstalled(const CaseInsensitiveString& name) const;

  // Adds a name by which an application is installed, shown at `where`.
  void add(const CaseInsensitiveString& name, const std::string& where);

 private:
  std::optional<std::string> find(const CaseInsensitiveString& name) const;
  // The commands of dpkg's file lists, read on the first name that nothing else knows.
  void readPackageCommands() const;

  const RuleManager* rules_ = nullptr;
  std::string packages_;  // dpkg's database folder
  std::unordered_map<CaseInsensitiveString, std::string> names_;
  std::unordered_map<CaseInsensitiveString, std::string> snaps_;  // by snap name
  mutable bool packageCommandsRead_ = false;
  mutable std::unordered_map<CaseInsensitiveString, std::string> packageCommands_;
};

}  // namespace Core
