#include <fmt/format.h>

#include <cstdio>
#include <set>

#include "Core/AppBundle.h"
#include "Core/PublicSuffixList.h"
#include "Core/RuleManager.h"
#include "cli/AppFiles.h"
#include "cli/Commands.h"
#include "host/Host.h"

namespace cli {

void addAppsCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("apps", "The installed applications as the scanners know them");
  auto json = std::make_shared<bool>(false);
  auto files = std::make_shared<bool>(false);
  auto wanted = std::make_shared<std::vector<std::string>>();
  command->add_flag(
      "--json", *json,
      "Print {\"apps\": [{\"id\", \"names\", \"url\", \"organization\", \"nested\"}]}; with "
      "--files each also has \"files\": [{\"path\", \"size\", \"kind\", \"owner\"}], \"size\" "
      "(of the files) and \"appSize\" (of the application itself)");
  command->add_flag("--files", *files,
                    "Also find each application's files (caches, logs, support, ...) and "
                    "measure them");
  command->add_option("ID", *wanted, "Only the applications with these identifiers");
  command->footer(
      "An owner says by which of the application's names a file was tied to it: id:, name:\n"
      "(its name or program) or organization:. Applications on a read-only mount are listed\n"
      "but their files aren't looked for. Exit status 1 when a named application isn't\n"
      "installed.");
  command->callback([=] {
    const Core::RuleManager* rules = Core::RuleManager::shared();
    if (rules == nullptr) throw CommandError{kFailure, Core::RuleManager::sharedLoadError()};
    const Core::PublicSuffixList* suffixes = Core::PublicSuffixList::shared();
    if (suffixes == nullptr)
      throw CommandError{kFailure, Core::PublicSuffixList::sharedLoadError()};

    std::set<Core::CaseInsensitiveString> named(wanted->begin(), wanted->end());
    std::set<Core::CaseInsensitiveString> seen;
    AppFilesReport report;
    if (*files) report = findAppFiles(false);

    Core::AppBundleLoader loader;
    nlohmann::json apps = nlohmann::json::array();
    std::size_t count = 0;
    std::int64_t total = 0;
    for (const auto& url : Core::applicationURLs()) {
      auto bundle = loader.bundle(url);
      if (!bundle) continue;
      if (!named.empty() && !named.count(bundle->bundleID)) continue;
      seen.insert(bundle->bundleID);
      const AppFiles* found = nullptr;
      if (auto it = report.installed.find(bundle->bundleID.origin());
          it != report.installed.end()) {
        found = &it->second;
      }
      std::int64_t appSize = 0;
      if (found) {
        for (const auto& entry : found->apps) {
          if (entry.url == bundle->url) appSize = entry.size;
        }
      }
      bundle->loadNestedBundles();
      // The rules name the organization first; else the label after the public suffix.
      std::optional<std::string> organization;
      if (auto fromRules = rules->extraInfo(bundle->bundleID.origin()).second) {
        organization = fromRules->origin();
      } else {
        organization = suffixes->organization(bundle->bundleID.origin());
      }
      ++count;
      if (*json) {
        nlohmann::json names = nlohmann::json::array(), nested = nlohmann::json::array();
        for (const auto& n : bundle->bundleNames) names.push_back(jsonText(n.origin()));
        for (const auto& n : bundle->bundleIDs) nested.push_back(jsonText(n.origin()));
        apps.push_back({{"id", jsonText(bundle->bundleID.origin())},
                        {"names", names},
                        {"url", jsonText(bundle->url)},
                        {"organization", organization ? nlohmann::json(jsonText(*organization))
                                                      : nlohmann::json(nullptr)},
                        {"nested", nested}});
        if (*files) {
          nlohmann::json list = nlohmann::json::array();
          if (found) {
            for (const auto& file : found->files) list.push_back(fileJson(file, true));
          }
          apps.back()["files"] = list;
          apps.back()["size"] = found ? found->size : 0;
          apps.back()["appSize"] = appSize;
        }
        continue;
      }
      std::string names;
      for (const auto& n : bundle->bundleNames) {
        names += (names.empty() ? "" : ", ") + displayText(n.origin());
      }
      std::printf("%s  (%s)%s\n  %s\n", displayText(bundle->bundleID.origin()).c_str(),
                  names.c_str(),
                  organization ? fmt::format("  by {}", displayText(*organization)).c_str() : "",
                  displayText(bundle->url).c_str());
      for (const auto& n : bundle->bundleIDs) {
        std::printf("    nested: %s\n", displayText(n.origin()).c_str());
      }
      if (*files) {
        std::int64_t size = found ? found->size : 0;
        if (found) {
          for (const auto& file : found->files) {
            std::printf("    %-10s %10s  %s\n", kindText(file.kind).c_str(),
                        file.sizeString().c_str(), displayText(file.url).c_str());
          }
        }
        std::printf("    %zu files, %s; the application itself %s\n",
                    found ? found->files.size() : 0, platform::formatByteCount(size).c_str(),
                    platform::formatByteCount(appSize).c_str());
        total += size;
      }
    }
    if (*json) {
      std::puts(nlohmann::json{{"apps", apps}}.dump().c_str());
    } else if (*files) {
      std::printf("%zu %s, %s in their files\n", count, count == 1 ? "application" : "applications",
                  platform::formatByteCount(total).c_str());
    } else {
      std::printf("%zu %s\n", count, count == 1 ? "application" : "applications");
    }
    for (const auto& id : named) {
      if (!seen.count(id)) {
        throw CommandError{kFailure,
                           fmt::format("no installed application is {}", displayText(id.origin()))};
      }
    }
  });
}

}  // namespace cli
