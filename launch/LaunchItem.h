#pragma once

// What starts by itself: service definitions in the user's and the system's folders (systemd
// units on Linux, launchd property lists on a Mac disk), helper applications that installed
// applications carry, and the user's login items. A finder gathers them all and hands one list
// to its delegate; each item reads and changes its own enabled state (ItemsStatusManager).

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Core/AppBundle.h"
#include "platform/Launchd.h"
#include "platform/Plist.h"

namespace launch {

// The application a login item belongs to, and the helper inside it that starts; no helper for
// an entry of the login-item list, whose application is the entry's own.
struct AppLoginItemInfo {
  std::shared_ptr<Core::AppBundle> appBundle;
  std::shared_ptr<Core::AppBundle> loginItemBundle;
};

struct AppLoginItem {
  AppLoginItemInfo itemInfo;
};
struct UserAgent {};
struct GlobalAgent {};
struct GlobalDaemon {};
using LaunchItemType = std::variant<AppLoginItem, UserAgent, GlobalAgent, GlobalDaemon>;

// Whether a launch item starts by itself, and switching that.
class LaunchStatus {
 public:
  virtual ~LaunchStatus() = default;
  virtual bool isAutoStartEnabled() const = 0;
};
class LaunchStatusUpdatable {
 public:
  virtual ~LaunchStatusUpdatable() = default;
  // True when something was changed.
  virtual bool setAutoStartEnabled(bool enabled) = 0;
};

class LaunchItem final : public LaunchStatus, public LaunchStatusUpdatable {
 public:
  LaunchItem(std::string url, LaunchItemType itemType);

  std::string url;  // the unit file or property list, the helper bundle or the listed entry
  LaunchItemType itemType;

  // The identifier of the bundle at `url`: "" for a unit file or a property list.
  const std::string& bundleId() const { return bundleId_; }
  // A unit file's name; a property list's "Label". Nothing where there is none.
  std::optional<std::string> getPlistItemLabel() const;
  // What the item runs, for display: a unit's ExecStart, a property list's program, an
  // application's Exec line. Nothing where it can't be told.
  std::optional<std::string> runs() const;

  // The service manager's domain of a unit; nothing for a login item.
  std::optional<platform::launchd::Domain> domain() const;
  // The unit's state as systemctl words it ("enabled", "disabled", "static", "masked",
  // "generated", "indirect", ...; "unknown" for a unit it didn't list); for a login item
  // "enabled" or "disabled".
  std::string state() const;

  bool isAutoStartEnabled() const override;
  bool setAutoStartEnabled(bool enabled) override;

  // Equal and hashed by `bundleId` alone: a set of items collapses what one application
  // registers twice (a helper that is also in the login-item list). Service definitions have no
  // bundle and so all compare equal: a set is only ever made of bundle items.
  friend bool operator==(const LaunchItem& a, const LaunchItem& b) {
    return a.bundleId_ == b.bundleId_;
  }

 private:
  std::string bundleId_;
};

class LaunchItemsFinderDelegate {
 public:
  virtual ~LaunchItemsFinderDelegate() = default;
  virtual void launchItemsFinderDidFind(const std::vector<LaunchItem>& items) = 0;
};

class LaunchItemsFinder {
 public:
  virtual ~LaunchItemsFinder() = default;
  std::weak_ptr<LaunchItemsFinderDelegate> delegate;
  // Returns at once; the delegate is called once, on the main queue, with the whole list.
  virtual void start() = 0;
};

// The one way to get a finder.
std::unique_ptr<LaunchItemsFinder> makeLaunchItemsFinder(
    std::weak_ptr<LaunchItemsFinderDelegate> delegate);

// The product's own identifier fragment: its items are never listed.
inline constexpr const char* kProductIdentifier = "com.fernhollow.Ravelin";

// The property list at `path` when it is a dictionary; nothing for anything else.
std::optional<platform::plist::Value> readPlistContent(const std::string& path);

namespace detail {
// The applications whose helpers are looked for; the platform's list unless a test sets one.
void setApplicationURLs(std::function<std::vector<std::string>()> urls);
}  // namespace detail

}  // namespace launch

template <>
struct std::hash<::launch::LaunchItem> {
  std::size_t operator()(const ::launch::LaunchItem& item) const noexcept {
    return std::hash<std::string>()(item.bundleId());
  }
};
