#pragma once

// The rules compiled into one forest of matcher trees, one tree per root folder, serving all
// applications at once: a scan walks each folder on disk once, and visits for one application
// only the nodes whose numbers are in that application's set. Conflicts between rules are
// settled here, by the order in which contexts are inserted.
//
// Built once and read-only afterwards; scan queues read it without a lock.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "Core/RuleManager.h"

namespace Core {

struct DirectoryMatcher;

// Claims the entry it matches, file or folder.
struct FileMatcher {
  std::int64_t id;
  Matcher matcher;
  std::int64_t priority;
  AppFile::Kind kind;
  RuleID ruleID;
};

using MatcherNode = std::variant<std::shared_ptr<DirectoryMatcher>, FileMatcher>;

// A folder level shared by every rule that passes through it.
struct DirectoryMatcher {
  std::int64_t id;
  Matcher matcher;
  std::vector<MatcherNode> children;  // in insertion order
};

// The node numbers of one rule; all its contexts add to the same set.
struct MatcherIDSet {
  std::set<std::int64_t> matcherIDs;
};

// One path string of one rule: the unit of compiling.
struct MatcherContext {
  PathMatcher matcher;
  AppFile::Kind kind;
  RuleID ruleID;
  std::shared_ptr<MatcherIDSet> idSet;
};

class AppFileRule {
 public:
  // Compiles the caches and logs sections of `rules`, and the support sections too when
  // `includeSupport` is set.
  AppFileRule(bool includeSupport, const RuleManager& rules);

  // The node numbers that serve `bundleID`: its own rule's, those of every rule whose key
  // expression matches it, and the base rule's.
  std::set<std::int64_t> matcherIDs(std::string_view bundleID) const;

  // The number of nodes in the tree of each root.
  std::map<std::string, std::size_t> nodeCounts() const;

  // A path string that the compile shut out: a node inserted before it (a catch-all, the same
  // pattern at another priority, a folder where it claims a file or the other way round) has
  // precedence at its place, so the forest doesn't hold what the document says. A path inside a
  // folder that its own rule claims whole is not listed: the folder's claim finds its files.
  struct ShadowedPath {
    std::string key;   // the rule key, as the document writes it
    std::string path;  // the path string
  };
  std::vector<ShadowedPath> shadowed;  // in the order of insertion

  std::map<std::string, std::vector<MatcherNode>> rules;  // root folder to top-level nodes
  std::unordered_map<CaseInsensitiveString, std::shared_ptr<MatcherIDSet>> matcherIDSet;
  std::unordered_map<platform::Regex, std::shared_ptr<MatcherIDSet>, RegexHash> regexMatcherIDSet;
  std::shared_ptr<MatcherIDSet> baseMatcherIDSet;
};

// Whether an entry of this name matches, and the application identifier the match yields: the
// name itself for `id`, the named group "id" of a regular expression when it captured.
struct MatchResult {
  bool matches = false;
  std::optional<std::string> identifier;
};
MatchResult match(const Matcher& matcher, std::string_view name);

// The document's key of a rule: the identifier, "*" and the expression, "*", "@" or "#".
std::string ruleKeyText(const RuleID& id);

// Specificity: string 4, regex 3, id 2, any 1.
int rank(const Matcher& matcher);

// True when context `a` is to be inserted before `b`: higher priority first, then the more
// literal path.
bool insertsBefore(const MatcherContext& a, const MatcherContext& b);

// The text of the named group `name` of `match`; nothing when there is no such group or it
// captured nothing.
std::optional<std::string> namedGroup(const platform::Regex& regex, std::string_view name,
                                      const platform::RegexMatch& match);

// The number of the group called `name`, found by reading the pattern from the left, for
// regular-expression engines that can't look a name up.
std::optional<std::size_t> groupNumberByScanning(std::string_view pattern, std::string_view name);

}  // namespace Core
