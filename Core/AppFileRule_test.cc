#include "Core/AppFileRule.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "platform/Locations.h"

namespace Core {
namespace {

RuleManager rulesOf(const std::string& document) {
  std::string error;
  auto manager = RuleManager::load(document, platform::Locations::underRoot("/r"), &error);
  EXPECT_TRUE(manager) << error;
  return manager ? std::move(*manager) : RuleManager{};
}

const std::vector<MatcherNode>& top(const AppFileRule& rule, const std::string& root = "/r/home") {
  static const std::vector<MatcherNode> empty;
  auto it = rule.rules.find(root);
  return it == rule.rules.end() ? empty : it->second;
}

const DirectoryMatcher& directory(const MatcherNode& node) {
  return *std::get<std::shared_ptr<DirectoryMatcher>>(node);
}

std::set<std::int64_t> setOf(const AppFileRule& rule, const char* id) {
  return rule.matcherIDSet.at(CaseInsensitiveString(id))->matcherIDs;
}

TEST(AppFileRuleTest, SamePathSamePriorityGivesEachRuleItsOwnFileNode) {
  AppFileRule rule(false, rulesOf("a.one: {caches: {cache: [Home/.cache/shared]}}\n"
                                  "a.two: {logs: {log: [Home/.cache/shared]}}\n"));
  const auto& cache = directory(top(rule).at(0));
  ASSERT_EQ(cache.children.size(), 2u);
  const auto& first = std::get<FileMatcher>(cache.children[0]);
  const auto& second = std::get<FileMatcher>(cache.children[1]);
  EXPECT_NE(first.id, second.id);
  auto one = setOf(rule, "a.one"), two = setOf(rule, "a.two");
  EXPECT_TRUE(one.count(cache.id) && two.count(cache.id));
  EXPECT_EQ(one.size(), 2u);
  EXPECT_EQ(two.size(), 2u);
  EXPECT_TRUE(one.count(first.id) != one.count(second.id));
}

TEST(AppFileRuleTest, AHigherPriorityClaimShutsOutTheSamePattern) {
  AppFileRule rule(false, rulesOf("a.high: {caches: {cache: ['50:Home/.cache/x']}}\n"
                                  "a.low: {caches: {cache: [Home/.cache/x]}}\n"));
  const auto& cache = directory(top(rule).at(0));
  ASSERT_EQ(cache.children.size(), 1u);
  EXPECT_EQ(std::get<FileMatcher>(cache.children[0]).priority, 50);
  EXPECT_EQ(setOf(rule, "a.low"), std::set<std::int64_t>{cache.id});  // directories only
  EXPECT_EQ(setOf(rule, "a.high").size(), 2u);
}

TEST(AppFileRuleTest, FileNodesAndDirectoryNodesOfOneNameExcludeEachOther) {
  // Deeper paths go first at equal priority: a/b/c enters b as a directory, so the file b is
  // dropped.
  AppFileRule deeper(false, rulesOf("a.short: {caches: {cache: [Home/a/b]}}\n"
                                    "a.long: {caches: {cache: [Home/a/b/c]}}\n"));
  const auto& a = directory(top(deeper).at(0));
  ASSERT_EQ(a.children.size(), 1u);
  EXPECT_TRUE(std::holds_alternative<std::shared_ptr<DirectoryMatcher>>(a.children[0]));
  EXPECT_EQ(setOf(deeper, "a.short"), std::set<std::int64_t>{a.id});

  // A higher priority puts the file b first; the path through b is then abandoned.
  AppFileRule fileFirst(false, rulesOf("a.short: {caches: {cache: ['60:Home/a/b']}}\n"
                                       "a.long: {caches: {cache: [Home/a/b/c]}}\n"));
  const auto& a2 = directory(top(fileFirst).at(0));
  ASSERT_EQ(a2.children.size(), 1u);
  EXPECT_TRUE(std::holds_alternative<FileMatcher>(a2.children[0]));
  EXPECT_EQ(setOf(fileFirst, "a.long"), std::set<std::int64_t>{a2.id});
}

TEST(AppFileRuleTest, IdCatchAllsAcceptOnlyTheirKindAfterThem) {
  AppFileRule rule(false, rulesOf("'*': {caches: {cache: ['Home/.cache/**']}}\n"
                                  "a.named: {caches: {cache: ['9:Home/.cache/named']}}\n"
                                  "a.also: {caches: {cache: ['Home/.cache/**']}}\n"
                                  "a.deep: {caches: {cache: ['80:Home/.cache/dir/x']}}\n"));
  const auto& cache = directory(top(rule).at(0));
  // dir (priority 80) came first, then the two "**" at priority 40 and 10... only the same
  // kind at the same priority joins a catch-all; the lower named file is refused.
  std::vector<int> kinds;
  for (const auto& node : cache.children) kinds.push_back(static_cast<int>(node.index()));
  EXPECT_EQ(kinds, (std::vector<int>{0, 1}));  // the directory "dir", then the one "**" at 40
  EXPECT_EQ(setOf(rule, "a.named"), std::set<std::int64_t>{cache.id});
  // The base rule's "**" at 10 met the catch-all of 40: same kind, other priority, dropped.
  EXPECT_EQ(rule.baseMatcherIDSet->matcherIDs, std::set<std::int64_t>{cache.id});
}

TEST(AppFileRuleTest, LookupsUniteOwnRegexAndBaseSets) {
  AppFileRule rule(false, rulesOf("com.example.app: {caches: {cache: [Home/own]}}\n"
                                  "'*com\\.example\\..*': {caches: {cache: [Home/regex1]}}\n"
                                  "'*.*\\.app': {caches: {cache: [Home/regex2]}}\n"
                                  "'*': {caches: {cache: [Home/base]}}\n"
                                  "'#': {caches: {cache: [Home/system]}}\n"));
  auto ids = rule.matcherIDs("COM.EXAMPLE.APP");
  EXPECT_EQ(ids.size(), 4u);  // own, both expressions and base; never the system rule
  EXPECT_EQ(rule.matcherIDs("org.other").size(), 1u);  // the base rule only
  AppFileRule noBase(false, rulesOf("com.x: {caches: {cache: [Home/own]}}\n"));
  EXPECT_TRUE(noBase.matcherIDs("org.unknown").empty());
}

TEST(AppFileRuleTest, SupportSectionsTakePartOnlyWhenAsked) {
  auto document =
      "a.app: {support: {support: ['90:Home/.config/a']}}\n"
      "a.other: {caches: {cache: [Home/.config/a]}}\n";
  AppFileRule junk(false, rulesOf(document));
  AppFileRule all(true, rulesOf(document));
  EXPECT_EQ(setOf(junk, "a.other").size(), 2u);  // nothing shut it out
  EXPECT_EQ(setOf(all, "a.other").size(), 1u);   // the support claim came first
}

TEST(MatcherTest, WhatEachCaseMatchesAndYields) {
  EXPECT_TRUE(match(StringMatcher{"Caches"}, "caches").matches);
  EXPECT_FALSE(match(StringMatcher{"Caches"}, "caches2").matches);
  auto regex = *platform::Regex::compile("^(?<id>com\\.[a-z]+)\\.savedState$", true);
  auto yielded = match(RegexMatcher{regex}, "com.example.savedState");
  EXPECT_TRUE(yielded.matches);
  EXPECT_EQ(yielded.identifier, "com.example");
  EXPECT_EQ(match(IdMatcher{}, "org.app").identifier, "org.app");
  EXPECT_TRUE(match(AnyMatcher{}, "x").matches);
  EXPECT_FALSE(match(AnyMatcher{}, "x").identifier);
}

TEST(MatcherTest, NamedGroupsByLookupAndByScanningThePattern) {
  EXPECT_EQ(groupNumberByScanning("^(a)(?<id>b)$", "id"), 2u);
  EXPECT_EQ(groupNumberByScanning("^\\((?<id>b)$", "id"), 1u);  // an escaped parenthesis
  EXPECT_EQ(groupNumberByScanning("^(?:x)(?<other>y)(?<id>z)$", "id"), 1u);  // others don't count
  EXPECT_FALSE(groupNumberByScanning("^(a)(b)$", "id"));
  EXPECT_FALSE(groupNumberByScanning("^(?<identity>a)$", "id"));
  auto regex = *platform::Regex::compile("^(?<id>x*)y$");
  auto empty = regex.firstMatch("y");
  EXPECT_FALSE(namedGroup(regex, "id", *empty));  // captured nothing
  EXPECT_EQ(namedGroup(regex, "id", *regex.firstMatch("xxy")), "xx");
}

// The compile says which path strings it shut out, so that a document means what it says; a path
// inside a folder its own rule claims whole is found through that claim and isn't listed.
TEST(AppFileRuleTest, ShutOutPathsAreReported) {
  AppFileRule rule(true, rulesOf("app.a:\n"
                                 "  caches: {cache: [Home/.config/A/Cache]}\n"
                                 "  support: {support: [Home/.config/A]}\n"
                                 "app.b:\n"
                                 "  caches: {cache: [Home/.config/B/Cache]}\n"
                                 "  support: {support: [41:Home/.config/B]}\n"
                                 "app.c: {caches: {cache: [50:Home/.cache/shared]}}\n"
                                 "app.d: {caches: {cache: [Home/.cache/shared]}}\n"));
  ASSERT_EQ(rule.shadowed.size(), 2u);
  // The deeper path made a folder node first, so A's claim of the whole folder was dropped; D's
  // claim met C's of the same pattern at a higher priority.
  std::set<std::pair<std::string, std::string>> lost;
  for (const auto& s : rule.shadowed) lost.insert({s.key, s.path});
  EXPECT_EQ(lost, (std::set<std::pair<std::string, std::string>>{{"app.a", "Home/.config/A"},
                                                                 {"app.d", "Home/.cache/shared"}}));
  EXPECT_EQ(ruleKeyText(RuleID{BundleIDRegexRule{*platform::Regex::compile("^x.*$", true)}}),
            "*x.*");
}

// Thousands of rules share one folder level, each with a claim of its own: every one stands, each
// in its own rule's set. (What compiling many rules costs is measured by bench/rules/run.)
TEST(AppFileRuleTest, ManyRulesUnderOneFolderEachKeepTheirClaim) {
  std::string document;
  for (int i = 0; i < 5000; ++i) {
    document += "app" + std::to_string(i) + ": {caches: {cache: [Home/.cache/app" +
                std::to_string(i) + ", Home/.cache/shared]}}\n";
  }
  AppFileRule rule(false, rulesOf(document));
  const auto& cache = directory(top(rule).at(0));
  EXPECT_EQ(cache.children.size(), 10000u);  // its own folder and the shared one, for each
  EXPECT_TRUE(rule.shadowed.empty());
  auto ids = rule.matcherIDs("app4321");
  EXPECT_EQ(ids.size(), 3u);  // the .cache folder and its two claims
}

TEST(AppFileRuleTest, TheShippedRulesLoadAndCompileWhole) {
  const RuleManager* shared = RuleManager::shared();
  ASSERT_NE(shared, nullptr) << RuleManager::sharedLoadError();
  EXPECT_TRUE(shared->rules.count(BaseRule{}) && shared->rules.count(BlackRule{}));
  EXPECT_EQ(shared->extraInfo("jetbrains-idea").second, CaseInsensitiveString("jetbrains"));
  for (bool includeSupport : {true, false}) {
    AppFileRule rule(includeSupport, *shared);
    EXPECT_FALSE(rule.rules.empty());
    for (const auto& lost : rule.shadowed) {
      ADD_FAILURE() << lost.key << ": " << lost.path << " is shut out (support " << includeSupport
                    << ")";
    }
  }
}

// The paths a serving node leads to, written as in a document below Home.
std::set<std::string> servedPaths(const AppFileRule& rule, const std::string& id,
                                  const std::string& home) {
  std::set<std::string> paths;
  auto ids = rule.matcherIDs(id);
  std::function<void(const std::vector<MatcherNode>&, const std::string&)> walk =
      [&](const std::vector<MatcherNode>& list, const std::string& prefix) {
        for (const auto& node : list) {
          if (auto* file = std::get_if<FileMatcher>(&node)) {
            if (ids.count(file->id) && file->matcher.index() == 0) {
              paths.insert(prefix + "/" + std::get<StringMatcher>(file->matcher).text.origin());
            }
          } else {
            const auto& folder = directory(node);
            if (ids.count(folder.id) && folder.matcher.index() == 0) {
              walk(folder.children,
                   prefix + "/" + std::get<StringMatcher>(folder.matcher).text.origin());
            }
          }
        }
      };
  auto it = rule.rules.find(home);
  if (it != rule.rules.end()) walk(it->second, "Home");
  return paths;
}

// Debian 12 installs these desktop-file IDs; each must reach its own cache folder in the junk
// scan, not only the generic paths every application gets.
TEST(AppFileRuleTest, DebianDesktopIdsGetTheirOwnCachePaths) {
  const RuleManager* shared = RuleManager::shared();
  ASSERT_NE(shared, nullptr);
  AppFileRule junk(false, *shared);
  const std::string home = platform::currentLocations().home;
  std::map<std::string, std::string> expected = {
      {"firefox-esr", "Home/.cache/mozilla/firefox"},
      {"thunderbird", "Home/.cache/thunderbird"},
      {"chromium", "Home/.cache/chromium"},
      {"gimp", "Home/.cache/gimp"},
      {"vlc", "Home/.cache/vlc"},
      {"mpv", "Home/.cache/mpv"},
      {"audacity", "Home/.cache/audacity"},
      {"transmission-gtk", "Home/.cache/transmission"},
      {"libreoffice-writer", "Home/.config/libreoffice/4/cache"},
      {"libreoffice-calc", "Home/.config/libreoffice/4/cache"},
      {"org.gnome.Evince", "Home/.cache/evince"},
  };
  for (const auto& [id, path] : expected) {
    EXPECT_EQ(servedPaths(junk, id, home).count(path), 1u) << id;
  }
  // A flatpak's ID is served through the generic ~/.var/app/ID of every application.
  EXPECT_FALSE(junk.matcherIDs("org.gimp.GIMP").empty());
}

}  // namespace
}  // namespace Core
