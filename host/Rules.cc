#include "host/Rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "Core/AppFileRule.h"
#include "Core/RuleManager.h"
#include "host/Host.h"
#include "platform/Locations.h"

namespace host {

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

// The file nodes among `ids`, with the path that leads to them.
void collectServed(const std::vector<Core::MatcherNode>& list, const std::string& prefix,
                   const std::set<std::int64_t>& ids, std::vector<RulesReport::Served>& out) {
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

RulesReport readRules(const std::string& document, const std::string& source,
                      const std::string& forID) {
  std::string error;
  auto manager = Core::RuleManager::load(document, platform::currentLocations(), &error);
  if (!manager) {
    throw CommandError{kFailure, fmt::format("{}: {}", displayText(source), displayText(error))};
  }
  RulesReport report;
  report.source = source;
  report.forID = forID;
  report.rules = manager->rules.size();
  // The uninstaller's forest holds all three sections; the junk scan's only caches and logs,
  // so a cache folder inside a support folder that the first claims whole stands only there.
  Core::AppFileRule forest(true, *manager);
  Core::AppFileRule junkForest(false, *manager);
  for (const auto& [id, rule] : manager->rules) ++report.kinds[kindOf(id)];
  for (const auto& [root, count] : forest.nodeCounts()) report.nodes.emplace_back(root, count);
  if (!forID.empty()) {
    auto ids = forest.matcherIDs(forID);
    for (const auto& [root, list] : forest.rules) collectServed(list, root, ids, report.served);
    auto junkIds = junkForest.matcherIDs(forID);
    for (const auto& [root, list] : junkForest.rules) {
      collectServed(list, root, junkIds, report.junk);
    }
  }
  // What either compile shuts out, once.
  for (const auto& lost : forest.shadowed) report.shadowed.push_back({lost.key, lost.path});
  for (const auto& lost : junkForest.shadowed) {
    bool known = std::any_of(report.shadowed.begin(), report.shadowed.end(), [&](const auto& s) {
      return s.key == lost.key && s.path == lost.path;
    });
    if (!known) report.shadowed.push_back({lost.key, lost.path});
  }
  return report;
}

nlohmann::json RulesReport::json() const {
  nlohmann::json out{{"rules", kinds}};
  nlohmann::json roots = nlohmann::json::object();
  for (const auto& [root, count] : nodes) roots[utf8Safe(root)] = count;
  out["nodes"] = roots;
  if (!forID.empty()) {
    auto nodesOf = [](const std::vector<Served>& list) {
      nlohmann::json out = nlohmann::json::array();
      for (const auto& s : list) {
        out.push_back({{"node", s.id},
                       {"path", jsonText(s.path)},
                       {"priority", s.priority},
                       {"kind", s.kind}});
      }
      return out;
    };
    out["for"] = {{"id", jsonText(forID)}, {"nodes", nodesOf(served)}, {"junk", nodesOf(junk)}};
  }
  nlohmann::json lost = nlohmann::json::array();
  for (const auto& path : shadowed) {
    lost.push_back({{"key", jsonText(path.key)}, {"path", jsonText(path.path)}});
  }
  out["shadowed"] = lost;
  return out;
}

}  // namespace host
