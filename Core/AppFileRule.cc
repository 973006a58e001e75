#include "Core/AppFileRule.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>

namespace Core {

namespace {

// Node numbers for the whole process: separate forests never share one. The first is 1.
std::atomic<std::int64_t> gNodeCounter{0};

std::int64_t nextNodeNumber() { return ++gNodeCounter; }

bool isAny(const Matcher& m) { return std::holds_alternative<AnyMatcher>(m); }
bool isId(const Matcher& m) { return std::holds_alternative<IdMatcher>(m); }

// Where the nodes of one list stand, so that each step of the compile looks its list up instead
// of walking it: the first node of each pattern decides, and nodes are only ever appended, so the
// first position of each pattern never changes. Keeps the compile near linear in the number of
// path strings however many siblings a folder level gets.
class ListIndex {
 public:
  static constexpr std::size_t kNone = SIZE_MAX;

  std::size_t firstFile(const std::string& key) const { return find(files_, key); }
  std::size_t directory(const std::string& key) const { return find(directories_, key); }
  std::size_t firstAnyFile() const { return firstAny_; }
  std::size_t firstIdFile() const { return firstId_; }

  void addFile(const Matcher& matcher, const std::string& key, std::size_t position) {
    files_.try_emplace(key, position);
    if (isAny(matcher) && firstAny_ == kNone) firstAny_ = position;
    if (isId(matcher) && firstId_ == kNone) firstId_ = position;
  }
  void addDirectory(const std::string& key, std::size_t position) {
    directories_.try_emplace(key, position);
  }

 private:
  static std::size_t find(const std::unordered_map<std::string, std::size_t>& map,
                          const std::string& key) {
    auto found = map.find(key);
    return found == map.end() ? kNone : found->second;
  }
  std::unordered_map<std::string, std::size_t> files_;
  std::unordered_map<std::string, std::size_t> directories_;
  std::size_t firstAny_ = kNone;
  std::size_t firstId_ = kNone;
};

// Equal matchers have equal keys: strings by their case folding, expressions by pattern and
// options.
std::string matcherKey(const Matcher& matcher) {
  switch (matcher.index()) {
    case 0:
      return "s" + std::get<StringMatcher>(matcher).text.folded();
    case 1: {
      const auto& regex = std::get<RegexMatcher>(matcher).regex;
      return (regex.caseInsensitive() ? "r" : "R") + regex.pattern();
    }
    case 3:
      return "i";
    default:
      return "a";
  }
}

class Compiler {
 public:
  // Enters the folder level `wanted` in `list`: the existing node, or a new one at the end.
  // Nothing when a catch-all file node or a file node of the same pattern closes the way; then
  // `closedBy` is that node's number.
  DirectoryMatcher* enter(std::vector<MatcherNode>& list, const Matcher& wanted,
                          MatcherIDSet& idSet, std::int64_t& closedBy) {
    ListIndex& index = indexes_[&list];
    const std::string key = matcherKey(wanted);
    std::size_t file = std::min({index.firstAnyFile(), index.firstIdFile(), index.firstFile(key)});
    std::size_t directory = index.directory(key);
    if (file < directory) {
      closedBy = std::get<FileMatcher>(list[file]).id;
      return nullptr;
    }
    if (directory != ListIndex::kNone) {
      auto& node = std::get<std::shared_ptr<DirectoryMatcher>>(list[directory]);
      idSet.matcherIDs.insert(node->id);
      return node.get();
    }
    auto node = std::make_shared<DirectoryMatcher>(
        DirectoryMatcher{nextNodeNumber(), wanted, std::vector<MatcherNode>{}});
    idSet.matcherIDs.insert(node->id);
    index.addDirectory(key, list.size());
    list.emplace_back(node);
    return node.get();
  }

  // Adds the file node of `context` to `list`, unless a node already there has precedence;
  // false when it has.
  bool insertFile(std::vector<MatcherNode>& list, const MatcherContext& context) {
    const Matcher& wanted = context.matcher.nameMatcher;
    ListIndex& index = indexes_[&list];
    const std::string key = matcherKey(wanted);
    // The first node that decides: a catch-all of another kind, a folder of the pattern, or the
    // first file node of the same pattern.
    std::size_t closing =
        std::min({isAny(wanted) ? ListIndex::kNone : index.firstAnyFile(),
                  isId(wanted) ? ListIndex::kNone : index.firstIdFile(), index.directory(key)});
    std::size_t same = index.firstFile(key);
    if (closing < same) return false;
    if (same != ListIndex::kNone &&
        std::get<FileMatcher>(list[same]).priority != context.matcher.priority) {
      return false;
    }
    // New, or the same claim at the same priority: both stand.
    FileMatcher file{nextNodeNumber(), wanted, context.matcher.priority, context.kind,
                     context.ruleID};
    context.idSet->matcherIDs.insert(file.id);
    index.addFile(wanted, key, list.size());
    list.emplace_back(std::move(file));
    return true;
  }

 private:
  std::unordered_map<const std::vector<MatcherNode>*, ListIndex> indexes_;
};

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

  Compiler compiler;
  for (const auto& context : contexts) {
    std::vector<MatcherNode>* list = &rules[context.matcher.root];
    bool inserted = true;
    bool covered = false;
    for (const auto& level : context.matcher.pathMatchers) {
      std::int64_t closedBy = 0;
      DirectoryMatcher* directory = compiler.enter(*list, level, *context.idSet, closedBy);
      if (directory == nullptr) {
        // Numbers already added to the set stay there. A folder that the same rule claims
        // whole holds what this path would have found: nothing is lost.
        inserted = false;
        covered = context.idSet->matcherIDs.count(closedBy) > 0;
        break;
      }
      list = &directory->children;
    }
    if (inserted) inserted = compiler.insertFile(*list, context);
    if (!inserted && !covered) {
      shadowed.push_back({ruleKeyText(context.ruleID), context.matcher.source});
    }
  }
}

std::string ruleKeyText(const RuleID& id) {
  if (auto* bundle = std::get_if<BundleIDRule>(&id)) return bundle->id.origin();
  if (auto* pattern = std::get_if<BundleIDRegexRule>(&id)) {
    // The key's expression, without the anchors the compile added.
    const std::string& text = pattern->regex.pattern();
    return "*" + (text.size() >= 2 ? text.substr(1, text.size() - 2) : text);
  }
  if (std::holds_alternative<BaseRule>(id)) return "*";
  if (std::holds_alternative<BlackRule>(id)) return "@";
  return "#";
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
