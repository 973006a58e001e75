#pragma once

#include <string>
#include <vector>

#include "platform/Locations.h"

namespace platform {

// The desktop entries of the installed applications: every "*.desktop" file of the
// application folders of `locations` (XDG data folders, flatpak exports, snap's folder), each
// desktop-file ID taken from the first folder that has it, as every desktop does. An ID whose
// first entry is marked Hidden is left out, together with the entries it hides.
std::vector<std::string> applicationURLs(const Locations& locations);

// The desktop-file ID of `path` below the application folder `folder`: the relative path with
// "/" turned into "-" ("kde4/konsole.desktop" is "kde4-konsole.desktop").
std::string desktopFileID(const std::string& folder, const std::string& path);

}  // namespace platform
