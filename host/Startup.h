#pragma once

// What starts by itself, as both hosts show it: the startup items found and sorted, their JSON,
// and switching one by its name with the state read back.

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/Scan.h"
#include "launch/LaunchItem.h"

namespace host {

class StartupScan final : public ScanJob {
 public:
  // With `all`, also the units no one switches (static, masked, generated, indirect, aliases).
  explicit StartupScan(bool all);
  ~StartupScan() override;
  // A listing can't be stopped part way: a stop settles it with nothing.
  void stop() override;
  // {"items": [{"type", "label", "path", "runs", "enabled", "domain", "state", "origin",
  // "package", "protected", "next"}]}
  void writeJson(const std::function<void(std::string_view)>& write) const override;
  // Nothing here is deleted.
  std::vector<std::string> reportedPaths() const override { return {}; }

  // Units first, by type and label; login items after them.
  std::vector<launch::LaunchItem>& items() { return items_; }

 private:
  class Delegate;
  void run() override;
  bool all_;
  std::shared_ptr<launch::LaunchItemsFinder> finder_;
  std::shared_ptr<Delegate> delegate_;
  std::vector<launch::LaunchItem> items_;
};

std::string typeText(const launch::LaunchItemType& type);
// The name an item is known by: a unit's or property list's label, a login item's identifier.
std::optional<std::string> labelOf(const launch::LaunchItem& item);
const char* domainText(const launch::LaunchItem& item);
// A unit the system needs: never switched from here.
bool isProtected(const launch::LaunchItem& item);
// What a user can switch: a unit that is enabled or disabled (or whose state systemctl can't
// tell), and every login item.
bool isSwitchable(const launch::LaunchItem& item);

// Where an item comes from: the package that ships its file, the administrator, the user, or
// the service manager's generators.
struct Origin {
  std::string origin;
  std::string package;
};
class Origins {
 public:
  Origin of(const launch::LaunchItem& item);

 private:
  Origin of(const std::string& path);
  std::optional<std::unordered_map<std::string, std::string>> files_;  // the packages' files
};

struct Switched {
  std::string name;  // its label, or its path
  bool enabled;      // read back after the change
  std::string state;
};

// Switches the item named `name` (a label, or a path as listed; an instance of a listed
// template too) among `items` on or off, and reads its state back. A name that matches no item
// or several is a `CommandError` of `kUsage`; a protected unit, or a change that didn't happen,
// one of `kFailure` (after `switched` is filled in).
void switchStartupItem(std::vector<launch::LaunchItem>& items, const std::string& name,
                       bool enabled, Switched& switched);

}  // namespace host
