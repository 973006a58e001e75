#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Core/AppFileRule.h"
#include "Core/RuleManager.h"
#include "cli/Commands.h"
#include "host/Host.h"
#include "host/Rules.h"
#include "platform/Locations.h"
#include "resources/Resources.h"

namespace cli {

void addRulesCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("rules", "Check the rule document and show what it compiles to");
  auto json = std::make_shared<bool>(false);
  auto file = std::make_shared<std::string>();
  auto forID = std::make_shared<std::string>();
  command->add_option("--check", *file, "Load FILE instead of the rules built into ravelin");
  command->add_option("--for", *forID, "Show the nodes and paths that serve identifier ID");
  command->add_flag("--json", *json, "Print one JSON object");
  command->callback([=] {
    std::string document(resources::ruleDocument());
    std::string source = "rule.yaml";
    if (!file->empty()) {
      std::ifstream input(*file, std::ios::binary);
      std::error_code code;
      if (std::filesystem::is_directory(*file, code)) {
        throw CommandError{kUsage,
                           fmt::format("{}: is a folder, not a rule document", displayText(*file))};
      }
      if (!input) {
        throw CommandError{kUsage, fmt::format("{}: can't be read", displayText(*file))};
      }
      std::ostringstream content;
      content << input.rdbuf();
      document = content.str();
      source = *file;
    }
    RulesReport report = readRules(document, source, *forID);
    if (*json) {
      std::puts(report.json().dump().c_str());
      return;
    }
    std::printf("%s: %zu rules", displayText(source).c_str(), report.rules);
    for (const auto& [kind, count] : report.kinds) std::printf(", %d %s", count, kind.c_str());
    std::printf("\n");
    for (const auto& [root, count] : report.nodes) {
      std::printf("  %6zu nodes under %s\n", count, displayText(root).c_str());
    }
    if (!report.shadowed.empty()) {
      std::printf("%zu path strings are shut out by paths compiled before them:\n",
                  report.shadowed.size());
      for (const auto& lost : report.shadowed) {
        std::printf("  %-40s %s\n", displayText(lost.key).c_str(), displayText(lost.path).c_str());
      }
    }
    if (!forID->empty()) {
      auto list = [](const char* title, const std::vector<RulesReport::Served>& paths) {
        std::printf("%s (%zu paths):\n", title, paths.size());
        for (const auto& s : paths) {
          std::printf("  node %-6lld %-10s priority %-3lld %s\n", static_cast<long long>(s.id),
                      s.kind.c_str(), static_cast<long long>(s.priority),
                      displayText(s.path).c_str());
        }
      };
      std::printf("%s\n", displayText(*forID).c_str());
      list("application files, as the uninstaller scans them", report.served);
      list("junk, as the clean-up scans it (caches and logs)", report.junk);
    }
  });
}

}  // namespace cli
