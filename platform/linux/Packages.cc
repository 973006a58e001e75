#include "platform/Packages.h"

#include "platform/Files.h"
#include "platform/Text.h"

namespace platform {

namespace {

// dpkg's lists grow with the package; none comes near this.
constexpr std::size_t kMaxListBytes = 64u << 20;

}  // namespace

std::unordered_map<std::string, std::string> packageFiles(
    const std::string& packages, const std::function<bool(std::string_view path)>& wanted) {
  std::unordered_map<std::string, std::string> files;
  const std::string info = joinPath(packages, "info");
  auto lists = listDirectory(info);
  if (!lists.ok()) return files;
  for (const auto& entry : *lists) {
    if (entry.type != FileType::regular || !entry.name.ends_with(".list")) continue;
    std::string package = entry.name.substr(0, entry.name.size() - 5);
    package = package.substr(0, package.find(':'));
    auto content = readRegularFile(joinPath(info, entry.name), kMaxListBytes, Follow::no);
    if (!content.ok()) continue;
    forEachLine(*content, [&](std::string_view line) {
      if (!line.empty() && line.front() == '/' && wanted(line)) {
        files.try_emplace(std::string(line), package);
      }
    });
  }
  return files;
}

std::string packageOf(const std::unordered_map<std::string, std::string>& files,
                      const std::string& path) {
  if (auto found = files.find(path); found != files.end()) return found->second;
  std::string other;
  if (path.starts_with("/usr/")) {
    other = path.substr(4);
  } else {
    for (const char* merged : {"/lib/", "/bin/", "/sbin/", "/lib64/"}) {
      if (path.starts_with(merged)) other = "/usr" + path;
    }
  }
  if (other.empty()) return "";
  auto found = files.find(other);
  return found != files.end() ? found->second : "";
}

}  // namespace platform
