#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "platform/Locations.h"

namespace platform {

// The desktop entries of the installed applications: every "*.desktop" regular file of the
// application folders of `locations` (XDG data folders, flatpak exports, snap's folder), each
// desktop-file ID taken from the first folder that has it, as every desktop does. An ID whose
// first entry is marked Hidden or NoDisplay is left out, together with the entries it hides: a
// desktop shows neither as an application. Linked folders are entered once each.
std::vector<std::string> applicationURLs(const Locations& locations);

// As `applicationURLs`, with the entries a desktop doesn't show (Hidden, NoDisplay) too: what is
// installed, whether or not it is shown.
std::vector<std::string> installedApplicationURLs(const Locations& locations);

// The application IDs installed in the flatpak installations of `locations` (their "app"
// folders), sorted and without repeats.
std::vector<std::string> installedFlatpaks(const Locations& locations);

// The path of the program `name` in the command folders of `locations`: the first regular file
// of that name with an execute bit, links followed below the locations' root.
std::optional<std::string> findCommand(const std::string& name, const Locations& locations);

// Where the application of the desktop entry `url` is installed, whose size is the application's
// size: the flatpak's folder in its installation, the snap's folder, the folder below /opt that
// holds its program, else the program itself. Nothing when it can't be told (not a desktop
// entry, or a program that isn't there).
std::optional<std::string> applicationInstallLocation(const std::string& url,
                                                      const Locations& locations);

// The largest desktop entry read.
inline constexpr std::size_t kMaxDesktopEntryBytes = 1024 * 1024;

// The bytes of a desktop entry, read so that a pipe in its place can't block; nothing when it
// isn't a readable regular file of at most `kMaxDesktopEntryBytes`.
std::optional<std::string> readDesktopEntry(const std::string& path);

// The desktop-file ID of `path` below the application folder `folder`: the relative path with
// "/" turned into "-" ("kde4/konsole.desktop" is "kde4-konsole.desktop").
std::string desktopFileID(const std::string& folder, const std::string& path);

}  // namespace platform
