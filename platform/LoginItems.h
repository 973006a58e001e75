#pragma once

// The user's login items: on Linux the XDG autostart entries, the user's
// ($XDG_CONFIG_HOME/autostart) over the system's (/etc/xdg/autostart and the other folders of
// $XDG_CONFIG_DIRS), an entry of one name in an earlier folder hiding those of later ones. An
// entry is listed unless it is Hidden (or switched off with X-GNOME-Autostart-enabled=false).
//
// Every change can be undone. Removing marks the user's own entry Hidden=true (keeping all else
// of it), or writes an override with Hidden=true over a system entry; adding switches the user's
// entry on again in place, or removes that override, or else writes a copy of the application's
// entry. The system's files are never written: where the user's folder is the system's (a link to
// it), nothing is changed. An entry resolves to the desktop entry of its application (one of the
// same desktop-file ID in the application folders), or else to itself. An entry meant for other
// desktops than this session's ($XDG_CURRENT_DESKTOP against OnlyShowIn and NotShowIn) doesn't
// start, and isn't listed.

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
// The entries the user switched off, which adding the resolved URL switches on again: the
// system's entry under an override of the user's, or the user's own entry.
std::vector<LoginItem> switchedOffEntries(const Locations& locations);
bool isInLoginItems(const Locations& locations, const std::string& url);
// Writes the user's entry for the application of the desktop entry `url` (a copy of it, so that
// it starts as the application does). False, and nothing changed, when it is listed already or
// `url` isn't a readable desktop entry.
bool addLoginItem(const Locations& locations, const std::string& url);
// Takes out every listed entry that resolves to `url`. False when none does.
bool removeLoginItem(const Locations& locations, const std::string& url);

}  // namespace platform::login_items
