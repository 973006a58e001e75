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
#include "platform/Locations.h"
#include "resources/Resources.h"

namespace cli {

namespace {

// A matcher as it is written in a path string.
std::string textOf(const Core::Matcher& matcher) {
  switch (matcher.index()) {
    case 0:
      return std::get<Core::StringMatcher>(matcher).text.origin();
    case 1: {
      std::string pattern = std::get<Core::RegexMatcher>(matcher).regex.pattern();
      // Stored as "^...$" for the component "*...".
      return "*" + pattern.substr(1, pattern.size() - 2);
    }
    case 3:
      return "**";
    default:
      return "*";
  }
}

std::string kindOf(const Core::RuleID& id) {
  switch (id.index()) {
    case 0:
      return "bundleID";
    case 1:
      return "bundleIDRegex";
    case 2:
      return "base";
    case 3:
      return "black";
    default:
      return "system";
  }
}

struct Served {
  std::int64_t id;
  std::string path;
  std::int64_t priority;
  std::string kind;
};

// The file nodes among `ids`, with the path that leads to them.
void collectServed(const std::vector<Core::MatcherNode>& list, const std::string& prefix,
                   const std::set<std::int64_t>& ids, std::vector<Served>& out) {
  for (const auto& node : list) {
    if (auto* file = std::get_if<Core::FileMatcher>(&node)) {
      if (ids.count(file->id)) {
        out.push_back({file->id, prefix + "/" + textOf(file->matcher), file->priority,
                       Core::AppFile::textOfKind(file->kind)});
      }
    } else {
      const auto& directory = *std::get<std::shared_ptr<Core::DirectoryMatcher>>(node);
      if (ids.count(directory.id)) {
        collectServed(directory.children, prefix + "/" + textOf(directory.matcher), ids, out);
      }
    }
  }
}

}  // namespace

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
    std::string error;
    auto manager = Core::RuleManager::load(document, platform::currentLocations(), &error);
    if (!manager) {
      throw CommandError{kFailure, fmt::format("{}: {}", displayText(source), displayText(error))};
    }
    // The uninstaller's forest holds all three sections; the junk scan's only caches and logs,
    // so a cache folder inside a support folder that the first claims whole stands only there.
    Core::AppFileRule forest(true, *manager);
    Core::AppFileRule junkForest(false, *manager);

    std::map<std::string, int> kinds;
    for (const auto& [id, rule] : manager->rules) ++kinds[kindOf(id)];
    std::vector<Served> served, junk;
    if (!forID->empty()) {
      auto ids = forest.matcherIDs(*forID);
      for (const auto& [root, list] : forest.rules) collectServed(list, root, ids, served);
      auto junkIds = junkForest.matcherIDs(*forID);
      for (const auto& [root, list] : junkForest.rules) collectServed(list, root, junkIds, junk);
    }
    // What either compile shuts out, once.
    std::vector<Core::AppFileRule::ShadowedPath> shadowed = forest.shadowed;
    for (const auto& lost : junkForest.shadowed) {
      bool known = std::any_of(shadowed.begin(), shadowed.end(), [&](const auto& s) {
        return s.key == lost.key && s.path == lost.path;
      });
      if (!known) shadowed.push_back(lost);
    }

    if (*json) {
      nlohmann::json out{{"rules", kinds}};
      nlohmann::json roots = nlohmann::json::object();
      for (const auto& [root, count] : forest.nodeCounts()) roots[utf8Safe(root)] = count;
      out["nodes"] = roots;
      if (!forID->empty()) {
        auto nodesOf = [](const std::vector<Served>& list) {
          nlohmann::json nodes = nlohmann::json::array();
          for (const auto& s : list) {
            nodes.push_back({{"node", s.id},
                             {"path", jsonText(s.path)},
                             {"priority", s.priority},
                             {"kind", s.kind}});
          }
          return nodes;
        };
        out["for"] = {
            {"id", jsonText(*forID)}, {"nodes", nodesOf(served)}, {"junk", nodesOf(junk)}};
      }
      nlohmann::json lost = nlohmann::json::array();
      for (const auto& path : shadowed) {
        lost.push_back({{"key", jsonText(path.key)}, {"path", jsonText(path.path)}});
      }
      out["shadowed"] = lost;
      std::puts(out.dump().c_str());
      return;
    }
    std::printf("%s: %zu rules", displayText(source).c_str(), manager->rules.size());
    for (const auto& [kind, count] : kinds) std::printf(", %d %s", count, kind.c_str());
    std::printf("\n");
    for (const auto& [root, count] : forest.nodeCounts()) {
      std::printf("  %6zu nodes under %s\n", count, displayText(root).c_str());
    }
    if (!shadowed.empty()) {
      std::printf("%zu path strings are shut out by paths compiled before them:\n",
                  shadowed.size());
      for (const auto& lost : shadowed) {
        std::printf("  %-40s %s\n", displayText(lost.key).c_str(), displayText(lost.path).c_str());
      }
    }
    if (!forID->empty()) {
      auto list = [](const char* title, const std::vector<Served>& paths) {
        std::printf("%s (%zu paths):\n", title, paths.size());
        for (const auto& s : paths) {
          std::printf("  node %-6lld %-10s priority %-3lld %s\n", static_cast<long long>(s.id),
                      s.kind.c_str(), static_cast<long long>(s.priority),
                      displayText(s.path).c_str());
        }
      };
      std::printf("%s\n", displayText(*forID).c_str());
      list("application files, as the uninstaller scans them", served);
      list("junk, as the clean-up scans it (caches and logs)", junk);
    }
  });
}

}  // namespace cli
