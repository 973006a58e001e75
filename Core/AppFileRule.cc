#include "Core/AppFileRule.h"

#include <algorithm>
#include <atomic>

namespace Core {

namespace {

// Node numbers for the whole process: separate forests never share one. The first is 1.
std::atomic<std::int64_t> gNodeCounter{0};

std::int64_t nextNodeNumber() { return ++gNodeCounter; }

bool isAny(const Matcher& m) { return std::holds_alternative<AnyMatcher>(m); }
bool isId(const Matcher& m) { return std::holds_alternative<IdMatcher>(m); }

// Enters the folder level `wanted` in `list`: the existing node, or a new one at the end.
// Nothing when a catch-all file node or a file node of the same pattern closes the way.
DirectoryMatcher* enter(std::vector<MatcherNode>& list, const Matcher& wanted,
                        MatcherIDSet& idSet) {
  for (auto& node : list) {
    if (auto* file = std::get_if<FileMatcher>(&node)) {
      if (isAny(file->matcher) || isId(file->matcher) || file->matcher == wanted) return nullptr;
    } else {
      auto& directory = std::get<std::shared_ptr<DirectoryMatcher>>(node);
      if (directory->matcher == wanted) {
        idSet.matcherIDs.insert(directory->id);
        return directory.get();
      }
    }
  }
  auto directory = std::make_shared<DirectoryMatcher>(
      DirectoryMatcher{nextNodeNumber(), wanted, std::vector<MatcherNode>{}});
  idSet.matcherIDs.insert(directory->id);
  list.emplace_back(directory);
  return directory.get();
}

// Adds the file node of `context` to `list`, unless a node already there has precedence.
void insertFile(std::vector<MatcherNode>& list, const MatcherContext& context) {
  const Matcher& wanted = context.matcher.nameMatcher;
  for (auto& node : list) {
    if (auto* file = std::get_if<FileMatcher>(&node)) {
      if (isAny(file->matcher) && !isAny(wanted)) return;
      if (isId(file->matcher) && !isId(wanted)) return;
      if (file->matcher == wanted) {
        if (file->priority != context.matcher.priority) return;
        break;  // the same claim at the same priority: both stand
      }
    } else if (std::get<std::shared_ptr<DirectoryMatcher>>(node)->matcher == wanted) {
      return;
    }
  }
  FileMatcher file{nextNodeNumber(), wanted, context.matcher.priority, context.kind,
                   context.ruleID};
  context.idSet->matcherIDs.insert(file.id);
  list.emplace_back(std::move(file));
}

void collect(const std::optional<KindMatchers>& section, const RuleID& id,
             const std::shared_ptr<MatcherIDSet>& idSet, std::vector<MatcherContext>& contexts) {
  if (!section) return;
  for (const auto& [kind, matchers] : *section) {
    for (const auto& matcher : matchers) contexts.push_back({matcher, kind, id, idSet});
  }
}

std::size_t countNodes(const std::vector<MatcherNode>& list) {
  std::size_t count = 0;
  for (const auto& node : list) {
    ++count;
    if (auto* directory = std::get_if<std::shared_ptr<DirectoryMatcher>>(&node)) {
      count += countNodes((*directory)->children);
    }
  }
  return count;
}

}  // namespace

int rank(const Matcher& matcher) {
  switch (matcher.index()) {
    case 0:
      return 4;  // string
    case 1:
      return 3;  // regex
    case 3:
      return 2;  // id
    default:
      return 1;  // any
  }
}

bool insertsBefore(const MatcherContext& a, const MatcherContext& b) {
  const PathMatcher& x = a.matcher;
  const PathMatcher& y = b.matcher;
  if (x.priority != y.priority) return x.priority > y.priority;
  std::size_t shorter = std::min(x.pathMatchers.size(), y.pathMatchers.size());
  for (std::size_t level = 0; level < shorter; ++level) {
    int rx = rank(x.pathMatchers[level]), ry = rank(y.pathMatchers[level]);
    if (rx != ry) return rx > ry;
  }
  if (x.pathMatchers.size() == y.pathMatchers.size()) {
    return rank(x.nameMatcher) > rank(y.nameMatcher);
  }
  if (x.pathMatchers.size() > y.pathMatchers.size()) {
    return rank(x.pathMatchers[shorter]) >= rank(y.nameMatcher);
  }
  return rank(x.nameMatcher) > rank(y.pathMatchers[shorter]);
}

AppFileRule::AppFileRule(bool includeSupport, const RuleManager& manager) {
  std::vector<MatcherContext> contexts;
  for (const auto& [id, rule] : manager.rules) {
    auto idSet = std::make_shared<MatcherIDSet>();
    if (auto* bundle = std::get_if<BundleIDRule>(&id)) {
      matcherIDSet[bundle->id] = idSet;
    } else if (auto* pattern = std::get_if<BundleIDRegexRule>(&id)) {
      regexMatcherIDSet[pattern->regex] = idSet;
    } else if (std::holds_alternative<BaseRule>(id)) {
      baseMatcherIDSet = idSet;
    }
    // Black and system rules keep no set: they only hold places in the tree.
    collect(rule.caches, id, idSet, contexts);
    collect(rule.logs, id, idSet, contexts);
    if (includeSupport) collect(rule.support, id, idSet, contexts);
  }
  // A stable sort: the order need not be a strict weak ordering for contexts that tie, and a
  // merge never leaves its bounds whatever the comparison says.
  std::stable_sort(contexts.begin(), contexts.end(), insertsBefore);

  for (const auto& context : contexts) {
    std::vector<MatcherNode>* list = &rules[context.matcher.root];
    bool abandoned = false;
    for (const auto& level : context.matcher.pathMatchers) {
      DirectoryMatcher* directory = enter(*list, level, *context.idSet);
      if (directory == nullptr) {
        abandoned = true;  // numbers already added to the set stay there
        break;
      }
      list = &directory->children;
    }
    if (!abandoned) insertFile(*list, context);
  }
}

std::set<std::int64_t> AppFileRule::matcherIDs(std::string_view bundleID) const {
  std::set<std::int64_t> ids;
  auto own = matcherIDSet.find(CaseInsensitiveString(bundleID));
  if (own != matcherIDSet.end())
    ids.insert(own->second->matcherIDs.begin(), own->second->matcherIDs.end());
  for (const auto& [regex, set] : regexMatcherIDSet) {
    if (regex.matches(bundleID)) ids.insert(set->matcherIDs.begin(), set->matcherIDs.end());
  }
  if (baseMatcherIDSet) {
    ids.insert(baseMatcherIDSet->matcherIDs.begin(), baseMatcherIDSet->matcherIDs.end());
  }
  return ids;
}

std::map<std::string, std::size_t> AppFileRule::nodeCounts() const {
  std::map<std::string, std::size_t> counts;
  for (const auto& [root, list] : rules) counts[root] = countNodes(list);
  return counts;
}

MatchResult match(const Matcher& matcher, std::string_view name) {
  switch (matcher.index()) {
    case 0:
      return {std::get<StringMatcher>(matcher).text == CaseInsensitiveString(name), std::nullopt};
    case 1: {
      const auto& regex = std::get<RegexMatcher>(matcher).regex;
      auto found = regex.firstMatch(name);
      if (!found) return {};
      return {true, namedGroup(regex, "id", *found)};
    }
    case 3:
      return {true, std::string(name)};
    default:
      return {true, std::nullopt};
  }
}

std::optional<std::string> namedGroup(const platform::Regex& regex, std::string_view name,
                                      const platform::RegexMatch& match) {
  std::optional<std::size_t> number = regex.groupNumber(name);
  if (!number) number = groupNumberByScanning(regex.pattern(), name);
  if (!number) return std::nullopt;
  auto text = match.group(*number);
  if (!text || text->empty()) return std::nullopt;
  return text;
}

std::optional<std::size_t> groupNumberByScanning(std::string_view pattern, std::string_view name) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    char c = pattern[i];
    if (c == '\\') {
      ++i;  // the next character is taken literally
      continue;
    }
    if (c != '(') continue;
    if (i + 1 >= pattern.size() || pattern[i + 1] != '?') {
      ++count;
      continue;
    }
    std::string_view rest = pattern.substr(i + 2);
    if (rest.starts_with("<") && rest.substr(1).starts_with(name) &&
        rest.size() > name.size() + 1 && rest[name.size() + 1] == '>') {
      return count + 1;
    }
  }
  return std::nullopt;
}

}  // namespace Core
