#pragma once

// What dpkg knows of the installed packages, read from its database folder directly (never by
// running dpkg per file): which package ships a file.

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace platform {

// The files of every package's file list ("info/NAME.list", "info/NAME:ARCH.list" below
// `packages`) for which `wanted` is true, each with the name of the package that ships it
// (without its architecture). Lists that can't be read are passed over.
std::unordered_map<std::string, std::string> packageFiles(
    const std::string& packages, const std::function<bool(std::string_view path)>& wanted);

// The package that ships `path` (as the system names it, "/lib/systemd/system/x.service") in
// `files`, trying the other spelling of a merged /usr too ("/usr/lib/..." for "/lib/..." and the
// other way round); "" when none does.
std::string packageOf(const std::unordered_map<std::string, std::string>& files,
                      const std::string& path);

}  // namespace platform
