#pragma once

// The user's login items: on Linux the XDG autostart entries, the user's
// ($XDG_CONFIG_HOME/autostart) over the system's (/etc/xdg/autostart and the other folders of
// $XDG_CONFIG_DIRS), an entry of one name in an earlier folder hiding those of later ones. An
// entry is listed unless it is Hidden (or switched off with X-GNOME-Autostart-enabled=false).
//
// Adding writes the user's entry; removing deletes the user's entry, or writes one with
// Hidden=true over a system entry of that name. An entry resolves to the desktop entry of its
// application (one of the same desktop-file ID in the application folders), or else to itself.

#include <optional>
#include <string>
#include <vector>

#include "platform/Locations.h"

namespace platform::login_items {

struct LoginItem {
  std::string entry;               // the autostart entry's file
  std::optional<std::string> url;  // what it resolves to; nothing when it can't be read
};

// The listed entries, the user's folder first, each folder's in name order.
std::vector<LoginItem> loginItemSnapshot(const Locations& locations);
// The system's entries that the user switched off with an entry of their own, which adding the
// resolved URL switches on again.
std::vector<LoginItem> switchedOffSystemEntries(const Locations& locations);
bool isInLoginItems(const Locations& locations, const std::string& url);
// Writes the user's entry for the application of the desktop entry `url` (a copy of it, so that
// it starts as the application does). False, and nothing changed, when it is listed already or
// `url` isn't a readable desktop entry.
bool addLoginItem(const Locations& locations, const std::string& url);
// Takes out every listed entry that resolves to `url`. False when none does.
bool removeLoginItem(const Locations& locations, const std::string& url);

}  // namespace platform::login_items
