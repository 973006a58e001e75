#include "helper/HelperInstaller.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <mutex>

#include "helper/Protocols.h"
#include "platform/Admin.h"
#include "platform/Analytics.h"
#include "platform/Files.h"
#include "platform/Plist.h"

namespace helper {

namespace {

constexpr char kShippedFolder[] = "libexec/ravelin";
constexpr std::size_t kMaxToolBytes = 256 * 1024 * 1024;

std::mutex& locationsMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

InstallLocations& locationsSlot() {
  static auto* locations = new InstallLocations;
  return *locations;
}

std::string unitName(const std::string& identifier) { return identifier + "@.service"; }

std::string joinCommands(const std::vector<std::string>& commands) {
  std::string script;
  for (const auto& command : commands) {
    if (!script.empty()) script += ";";
    script += command;
  }
  return script;
}

// Commands that disable and remove each helper whose unit is installed, older first.
std::vector<std::string> uninstallCommands() {
  std::vector<std::string> commands;
  for (const char* identifier : {kOlderServiceName, kServiceName}) {
    if (!platform::fileExists(installedUnitPath(identifier), platform::Follow::no)) continue;
    commands.push_back("/bin/systemctl disable --now " + std::string(identifier) +
                       "@$__HELPER_UID.service");
    commands.push_back("/bin/rm -f " + installedUnitPath(identifier));
    commands.push_back("/bin/rm -f " + installedToolPath(identifier));
  }
  return commands;
}

std::map<std::string, std::string> scriptEnvironment() {
  return {{"__APP_PATH", programPrefix()}, {"__HELPER_UID", std::to_string(::getuid())}};
}

}  // namespace

const InstallLocations& installLocations() {
  std::lock_guard lock(locationsMutex());
  return locationsSlot();
}

void setInstallLocations(InstallLocations locations) {
  std::lock_guard lock(locationsMutex());
  locationsSlot() = std::move(locations);
}

std::string programPrefix() {
  if (!installLocations().programPrefix.empty()) return installLocations().programPrefix;
  char buffer[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (n <= 0) return "";
  std::string program(buffer, static_cast<std::size_t>(n));
  return platform::deletingLastPathComponent(platform::deletingLastPathComponent(program));
}

std::string shippedToolPath() {
  return programPrefix() + "/" + kShippedFolder + "/" + kServiceName;
}

std::string installedToolPath(const std::string& identifier) {
  return installLocations().toolFolder + "/" + identifier;
}

std::string installedUnitPath(const std::string& identifier) {
  return installLocations().unitFolder + "/" + unitName(identifier);
}

std::optional<std::string> readBundleVersion(const std::string& path) {
  auto bytes = platform::readRegularFile(path, kMaxToolBytes);
  if (!bytes.ok()) return std::nullopt;
  // The tool keeps one XML property list among its bytes; the one that names the version is it.
  const std::string& content = *bytes;
  for (std::size_t start = content.find("<?xml"); start != std::string::npos;
       start = content.find("<?xml", start + 1)) {
    std::size_t end = content.find("</plist>", start);
    if (end == std::string::npos) break;
    auto plist = platform::plist::parse(std::string_view(content).substr(start, end + 8 - start));
    if (!plist) continue;
    const auto* version = plist->find("CFBundleVersion");
    if (version != nullptr && version->string() != nullptr) return *version->string();
  }
  return std::nullopt;
}

int compareVersions(const std::string& a, const std::string& b) {
  std::size_t i = 0, j = 0;
  while (i < a.size() || j < b.size()) {
    bool digitA = i < a.size() && std::isdigit(static_cast<unsigned char>(a[i]));
    bool digitB = j < b.size() && std::isdigit(static_cast<unsigned char>(b[j]));
    if (digitA && digitB) {
      // Numbers compare by value: skip leading zeros, then the longer is larger.
      while (i < a.size() && a[i] == '0') ++i;
      while (j < b.size() && b[j] == '0') ++j;
      std::size_t si = i, sj = j;
      while (i < a.size() && std::isdigit(static_cast<unsigned char>(a[i]))) ++i;
      while (j < b.size() && std::isdigit(static_cast<unsigned char>(b[j]))) ++j;
      std::string_view na(a.data() + si, i - si), nb(b.data() + sj, j - sj);
      if (na.size() != nb.size()) return na.size() < nb.size() ? -1 : 1;
      if (int c = na.compare(nb); c != 0) return c < 0 ? -1 : 1;
      continue;
    }
    if (i >= a.size()) return -1;
    if (j >= b.size()) return 1;
    if (a[i] != b[j])
      return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]) ? -1 : 1;
    ++i;
    ++j;
  }
  return 0;
}

std::string enabledInstancePath(unsigned uid) {
  return installLocations().unitFolder + "/multi-user.target.wants/" + kServiceName + "@" +
         std::to_string(uid) + ".service";
}

bool helperNeedsInstall() {
  const std::string installed = installedToolPath(kServiceName);
  if (!platform::fileExists(installed, platform::Follow::no)) return true;
  // Each user has an instance of their own: another user's is no use to this one.
  if (!platform::fileExists(installedUnitPath(kServiceName), platform::Follow::no) ||
      !platform::fileExists(enabledInstancePath(::getuid()), platform::Follow::no)) {
    return true;
  }
  auto shippedVersion = readBundleVersion(shippedToolPath());
  if (!shippedVersion) return true;
  auto installedVersion = readBundleVersion(installed);
  if (!installedVersion) return true;
  // An installed helper that is equal or newer is kept.
  return compareVersions(*shippedVersion, *installedVersion) > 0;
}

std::vector<std::string> installCommands() {
  const std::string n = kServiceName;
  const std::string unit = unitName(n);
  const std::string shipped = std::string("./") + kShippedFolder + "/";
  const InstallLocations& where = installLocations();
  // Accepted only as regular files owned by root that no one else may write: the unit says what
  // root runs, so it is checked like the tool.
  const std::string accepted =
      " -maxdepth 0 -type f -user root ! -perm /022 | /usr/bin/wc -l | "
      "/bin/grep -qx 2";
  std::vector<std::string> commands{"set +e"};
  for (auto& command : uninstallCommands()) commands.push_back(std::move(command));
  commands.insert(
      commands.end(),
      {"set -e", "umask 022", "cd \"$__APP_PATH\"",
       // A first look, so that a file that fails is never copied anywhere.
       "/usr/bin/find " + shipped + n + " " + shipped + unit + accepted,
       "/usr/bin/install -d -o root -g root -m 0755 " + where.toolFolder + " " + where.unitFolder,
       // The files are copied into folders of root's, each beside its final place, checked
       // there where no one else can change them, and renamed into place: what was checked is
       // what is installed, whatever happens in the program's folder meanwhile.
       "t=$(/bin/mktemp -d " + where.toolFolder + "/.install.XXXXXX)",
       "u=$(/bin/mktemp -d " + where.unitFolder + "/.ravelin-install.XXXXXX)",
       "trap '/bin/rm -rf \"$t\" \"$u\"' EXIT",
       "/bin/cp --no-dereference --preserve=mode,ownership " + shipped + n + " \"$t/" + n + "\"",
       "/bin/cp --no-dereference --preserve=mode,ownership " + shipped + unit + " \"$u/" + unit +
           "\"",
       "/usr/bin/find \"$t/" + n + "\" \"$u/" + unit + "\"" + accepted,
       "/bin/chown root:root \"$t/" + n + "\" \"$u/" + unit + "\"",
       "/bin/chmod 0755 \"$t/" + n + "\"", "/bin/chmod 0644 \"$u/" + unit + "\"",
       "/bin/mv -f \"$t/" + n + "\" " + where.toolFolder + "/" + n,
       "/bin/mv -f \"$u/" + unit + "\" " + where.unitFolder + "/" + unit,
       "/bin/systemctl enable --now " + n + "@$__HELPER_UID.service"});
  return commands;
}

bool installHelper() {
  auto error =
      platform::adminRunner().runAsRoot(joinCommands(installCommands()), scriptEnvironment());
  if (error) {
    platform::analytics().recordEvent(45, {{"info", "error: " + *error}});
    return false;
  }
  platform::analytics().recordEvent(45, {{"info", "ok"}});
  return true;
}

bool uninstallHelper() {
  std::vector<std::string> commands{"set +e"};
  for (auto& command : uninstallCommands()) commands.push_back(std::move(command));
  return !platform::adminRunner().runAsRoot(joinCommands(commands), scriptEnvironment());
}

}  // namespace helper
