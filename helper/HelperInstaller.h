#pragma once

// Whether the privileged helper must be installed, and installing it: the tool and its systemd
// unit are copied from the program's own folder to the system's places and the unit is enabled,
// all as root through one shell script that the administrator consents to.

#include <optional>
#include <string>
#include <vector>

namespace helper {

// Where things are. The defaults are the system's; tests and hosts may set others.
struct InstallLocations {
  // The program's own prefix (the folder above its bin/ or cli/), which holds the shipped tool
  // and unit under "libexec/ravelin/". Empty: found from the running program.
  std::string programPrefix;
  std::string toolFolder = "/usr/local/libexec/ravelin";
  std::string unitFolder = "/etc/systemd/system";
};

const InstallLocations& installLocations();
void setInstallLocations(InstallLocations locations);

// The prefix of the running program: the folder above the one that holds it.
std::string programPrefix();

// Paths of the shipped and the installed tool and unit for a helper identifier.
std::string shippedToolPath();
std::string installedToolPath(const std::string& identifier);
std::string installedUnitPath(const std::string& identifier);

// The version in the information property list kept inside a tool's file (read from the file,
// never by running it); nothing when the file or the key can't be read.
std::optional<std::string> readBundleVersion(const std::string& path);

// Compares version texts number by number ("2.10" after "2.9"); <0, 0 or >0.
int compareVersions(const std::string& a, const std::string& b);

// The link that enabling user `uid`'s instance of the helper makes.
std::string enabledInstancePath(unsigned uid);

// True when no helper is installed, this user's instance isn't enabled, a version can't be read,
// or the shipped helper is newer.
bool helperNeedsInstall();

// The install script's commands, in order: the uninstall of every helper present (older
// identifier first) under "set +e"; then, under "set -e" and "umask 022", the acceptance check of
// the shipped tool and unit (regular files of root's that no one else may write), their copies
// into root's temporary folders beside their places, the same check of the copies, owner and
// modes set (0755 for the tool, 0644 for the unit), the renames into place and the enabling of
// this user's instance. The program's folder is named only as "$__APP_PATH" and the user as
// "$__HELPER_UID".
std::vector<std::string> installCommands();

// Runs the install script as root (the user is asked to consent). Records event 45 with "ok" or
// "error: " and the message. True when installed.
bool installHelper();

// Removes every installed helper the same way; true when the script ran without error.
bool uninstallHelper();

}  // namespace helper
