#include <fmt/format.h>

#include <cstdio>

#include "Core/AppBundle.h"
#include "Core/PublicSuffixList.h"
#include "Core/RuleManager.h"
#include "cli/Commands.h"
#include "cli/Host.h"

namespace cli {

void addAppsCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("apps", "The installed applications as the scanners know them");
  auto json = std::make_shared<bool>(false);
  command->add_flag(
      "--json", *json,
      "Print {\"apps\": [{\"id\", \"names\", \"url\", \"organization\", \"nested\"}]}");
  command->callback([=] {
    const Core::RuleManager* rules = Core::RuleManager::shared();
    if (rules == nullptr) throw CommandError{kFailure, Core::RuleManager::sharedLoadError()};
    const Core::PublicSuffixList* suffixes = Core::PublicSuffixList::shared();
    if (suffixes == nullptr)
      throw CommandError{kFailure, Core::PublicSuffixList::sharedLoadError()};

    Core::AppBundleLoader loader;
    nlohmann::json apps = nlohmann::json::array();
    std::size_t count = 0;
    for (const auto& url : Core::applicationURLs()) {
      auto bundle = loader.bundle(url);
      if (!bundle) continue;
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
    }
    if (*json) {
      std::puts(nlohmann::json{{"apps", apps}}.dump().c_str());
    } else {
      std::printf("%zu applications\n", count);
    }
  });
}

}  // namespace cli
