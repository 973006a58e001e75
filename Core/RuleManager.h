#pragma once

// The knowledge of where applications keep their caches, logs and support files, read from the
// rule document that ships with the library. Keys of the document become `RuleID`s, path strings
// become `PathMatcher`s; `AppFileRule` compiles them into matcher trees.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <variant>
#include <vector>

#include "Core/App.h"
#include "Core/CaseInsensitiveString.h"
#include "platform/Locations.h"
#include "platform/Regex.h"

namespace Core {

// What a path component or a rule key matches.
struct StringMatcher {
  CaseInsensitiveString text;
};
struct RegexMatcher {
  platform::Regex regex;
};
struct AnyMatcher {};  // "*": any name
struct IdMatcher {};   // "**": a name that is an application's identifier
using Matcher = std::variant<StringMatcher, RegexMatcher, AnyMatcher, IdMatcher>;

bool operator==(const Matcher& a, const Matcher& b);
std::size_t hashOf(const Matcher& matcher);

// Whom a rule serves.
struct BundleIDRule {
  CaseInsensitiveString id;
};
struct BundleIDRegexRule {
  platform::Regex regex;
};
struct BaseRule {};    // "*": every application
struct BlackRule {};   // "@": never reported
struct SystemRule {};  // "#": belongs to the system
using RuleID = std::variant<BundleIDRule, BundleIDRegexRule, BaseRule, BlackRule, SystemRule>;

bool operator==(const RuleID& a, const RuleID& b);
std::size_t hashOf(const RuleID& id);

struct RuleIDHash {
  std::size_t operator()(const RuleID& id) const { return hashOf(id); }
};
struct RegexHash {
  std::size_t operator()(const platform::Regex& regex) const { return regex.hash(); }
};

// One parsed path string: matching starts in `root`, goes one folder level per path matcher,
// and ends with the name matcher.
struct PathMatcher {
  std::string root;
  std::int64_t priority = 0;
  std::vector<Matcher> pathMatchers;
  Matcher nameMatcher;
  std::string source;  // the path string as the document has it, for messages
};

using KindMatchers = std::vector<std::pair<AppFile::Kind, std::vector<PathMatcher>>>;

// The sections of one document entry; a section the document omits stays absent.
struct Rule {
  std::optional<KindMatchers> caches;
  std::optional<KindMatchers> logs;
  std::optional<KindMatchers> support;
};

struct ExtraInfo {
  std::optional<std::vector<CaseInsensitiveString>> ids;
  std::optional<CaseInsensitiveString> organization;
};

class RuleManager {
 public:
  // Reads a rule document. `locations` gives the roots "Home", "Lib" and "Tmp". Nothing, with
  // `error` naming the key or string at fault, when the document has a defect: no partial rule
  // set is ever made.
  static std::optional<RuleManager> load(std::string_view document,
                                         const platform::Locations& locations,
                                         std::string* error = nullptr);

  // The rules built into the library, read on first use with `platform::currentLocations()`.
  // nullptr when they have a defect; `sharedLoadError()` then says which.
  static const RuleManager* shared();
  static const std::string& sharedLoadError();

  // Further identifiers and the organization that the rules give `bundleID`: entries whose key
  // expression matches it first, in no defined order, then its exact entry, which always
  // decides the organization.
  std::pair<std::vector<CaseInsensitiveString>, std::optional<CaseInsensitiveString>> extraInfo(
      std::string_view bundleID) const;

  std::unordered_set<CaseInsensitiveString> bundleIDs;
  std::unordered_map<RuleID, Rule, RuleIDHash> rules;
  std::unordered_map<CaseInsensitiveString, ExtraInfo> extraInfos;
  std::unordered_map<platform::Regex, ExtraInfo, RegexHash> regexExtraInfos;
};

// The grammar of the document, for tests and for the rules checker.
std::optional<RuleID> parseRuleKey(std::string_view key);
std::optional<Matcher> parseComponent(std::string_view component);
// A path string's root is the outermost of the locations that holds the folder it starts in:
// with Lib inside Home, "Lib/x" parses as Home/.local/share/x, so that one folder on disk is one
// node of the forest.
std::optional<PathMatcher> parsePathString(std::string_view text, std::int64_t defaultPriority,
                                           const platform::Locations& locations);
std::int64_t defaultPriority(const RuleID& id);

}  // namespace Core
