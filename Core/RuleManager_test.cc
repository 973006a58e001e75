#include "Core/RuleManager.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace Core {
namespace {

const platform::Locations& fixture() {
  static const auto* locations = new platform::Locations(platform::Locations::underRoot("/r"));
  return *locations;
}

std::optional<RuleManager> load(const std::string& document, std::string* error = nullptr) {
  return RuleManager::load(document, fixture(), error);
}

TEST(RuleKeyTest, KeysBecomeRuleIDs) {
  EXPECT_FALSE(parseRuleKey(""));
  EXPECT_TRUE(std::holds_alternative<BaseRule>(*parseRuleKey("*")));
  EXPECT_TRUE(std::holds_alternative<BlackRule>(*parseRuleKey("@")));
  EXPECT_TRUE(std::holds_alternative<SystemRule>(*parseRuleKey("#")));
  auto regex = parseRuleKey("*x");
  ASSERT_TRUE(regex && std::holds_alternative<BundleIDRegexRule>(*regex));
  EXPECT_EQ(std::get<BundleIDRegexRule>(*regex).regex.pattern(), "^x$");
  EXPECT_TRUE(std::get<BundleIDRegexRule>(*regex).regex.caseInsensitive());
  // A sign followed by more is a plain identifier.
  EXPECT_EQ(std::get<BundleIDRule>(*parseRuleKey("@x")).id, CaseInsensitiveString("@x"));
  EXPECT_EQ(std::get<BundleIDRule>(*parseRuleKey("#x")).id, CaseInsensitiveString("#x"));
  EXPECT_FALSE(parseRuleKey("*("));
  EXPECT_EQ(*parseRuleKey("com.A"), *parseRuleKey("COM.a"));
  EXPECT_EQ(hashOf(*parseRuleKey("com.A")), hashOf(*parseRuleKey("COM.a")));
  EXPECT_FALSE(*parseRuleKey("*a") == *parseRuleKey("*b"));
}

TEST(PathStringTest, RootsPrioritiesAndComponents) {
  auto cache = parsePathString("50:Lib/Caches/*com\\.example\\..*", 40, fixture());
  ASSERT_TRUE(cache);
  // The data folder lies in the home folder: its rules start there, so that each folder on disk
  // is one node whichever location a rule names.
  EXPECT_EQ(cache->root, "/r/home");
  EXPECT_EQ(cache->priority, 50);
  ASSERT_EQ(cache->pathMatchers.size(), 3u);
  EXPECT_EQ(std::get<StringMatcher>(cache->pathMatchers[0]).text.origin(), ".local");
  EXPECT_EQ(std::get<StringMatcher>(cache->pathMatchers[2]).text, CaseInsensitiveString("caches"));
  auto absolute = parsePathString("/r/home/.config/*x", 40, fixture());
  ASSERT_TRUE(absolute);
  EXPECT_EQ(absolute->root, "/r/home");
  EXPECT_EQ(absolute->pathMatchers.size(), 1u);
  EXPECT_TRUE(std::get<RegexMatcher>(cache->nameMatcher).regex.matches("COM.EXAMPLE.tool"));

  auto logs = parsePathString("/Library/Logs/**", 90, fixture());
  ASSERT_TRUE(logs);
  EXPECT_EQ(logs->root, "/");
  EXPECT_EQ(logs->priority, 90);
  EXPECT_EQ(logs->pathMatchers.size(), 2u);
  EXPECT_TRUE(std::holds_alternative<IdMatcher>(logs->nameMatcher));

  auto tmp = parsePathString("Tmp//x//*", 10, fixture());
  ASSERT_TRUE(tmp);
  EXPECT_EQ(tmp->root, "/r/tmp");  // the temporary folder itself
  EXPECT_TRUE(std::holds_alternative<AnyMatcher>(tmp->nameMatcher));
  EXPECT_EQ(parsePathString("7:Home/x", 90, fixture())->priority, 7);
  EXPECT_TRUE(parsePathString("/x", 10, fixture())->pathMatchers.empty());
}

TEST(PathStringTest, StringsThatGiveNoMatcher) {
  for (const char* bad : {"Home", "Lib", "/", "home/x", "Elsewhere/x", "Home/***", "Home/*(",
                          "99999999999999999999:Home/x", ""}) {
    EXPECT_FALSE(parsePathString(bad, 10, fixture())) << bad;
  }
}

TEST(RuleManagerTest, LoadsEntriesAndExtraInformation) {
  std::string error;
  auto manager = load(R"(
com.Example.App:
  ids: [com.example.helper, com.example.agent]
  organization: Example
  caches:
    cache: [Home/.cache/example]
  logs:
    crash: [Home/.example/crashes]
'*com\.example\..*':
  ids: [com.example.shared]
  organization: FromRegex
com.example.quiet:
  ids: []
'*':
  support:
    support: [Home/.config/**]
'#':
  caches:
    cache: [Home/.cache/fontconfig]
com.bare: {}
)",
                      &error);
  ASSERT_TRUE(manager) << error;
  EXPECT_EQ(manager->bundleIDs.size(), 3u);
  EXPECT_TRUE(manager->bundleIDs.count(CaseInsensitiveString("COM.EXAMPLE.APP")));
  EXPECT_EQ(manager->bundleIDs.find(CaseInsensitiveString("com.example.app"))->origin(),
            "com.Example.App");

  const Rule& app = manager->rules.at(BundleIDRule{"com.example.app"});
  ASSERT_TRUE(app.caches && app.logs);
  EXPECT_FALSE(app.support);
  EXPECT_EQ(app.logs->front().first, AppFile::Kind(AppFile::Other{"crash"}));
  EXPECT_EQ(app.caches->front().second.front().priority, 40);
  EXPECT_EQ(manager->rules.at(SystemRule{}).caches->front().second.front().priority, 90);
  const Rule& bare = manager->rules.at(BundleIDRule{"com.bare"});
  EXPECT_FALSE(bare.caches || bare.logs || bare.support);

  // The exact entry decides the organization, also when it has none.
  auto [ids, organization] = manager->extraInfo("COM.EXAMPLE.APP");
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(ids, (std::vector<CaseInsensitiveString>{"com.example.agent", "com.example.helper",
                                                     "com.example.shared"}));
  EXPECT_EQ(organization, CaseInsensitiveString("example"));
  EXPECT_FALSE(manager->extraInfo("com.example.quiet").second);
  EXPECT_EQ(manager->extraInfo("com.example.other").second, CaseInsensitiveString("FromRegex"));
  EXPECT_TRUE(manager->extraInfo("org.unknown").first.empty());
}

TEST(RuleManagerTest, DefectsEndTheLoadAndNameWhatIsAtFault) {
  struct Case {
    std::string document;
    const char* mentions;
  } cases[] = {
      {"'': {}", "key \"\""},
      {"'*(': {}", "key \"*(\""},
      {"com.x:\n  caches:\n    cache: [Home]", "\"Home\""},
      {"com.x:\n  caches:\n    cache: [Home/***]", "\"Home/***\""},
      {"com.x:\n  caches: [Home/x]", "\"caches\""},
      {"com.x:\n  ids: notalist", "\"ids\""},
      {"- a\n- b", "not a mapping"},
      {"com.x: {}\ncom.x: {}", "twice"},
      {"com.x: {}\nCOM.X: {}", "same rule key"},
      {"com.x: [", "line"},
      {"a: 1\n---\nb: 2", "more than one document"},
      // Bytes the reader refuses are placed on their own line, not the document's first.
      {"a: {}\nb: {}\nc: {}\nd: {ids: [x\xFF]}", "line 4"},
      {std::string("a: {}\nb: {}\nc: {}\nd: {ids: [x\0]}", 32), "line 4"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(load(c.document, &error)) << c.document;
    EXPECT_NE(error.find(c.mentions), std::string::npos) << c.document << " -> " << error;
  }
}

// A document holds strings, lists and mappings: a graph of aliases, or a nesting deeper than any
// rule needs, is refused at once instead of growing without bound.
TEST(RuleManagerTest, HostileDocumentsAreRefusedQuickly) {
  const std::string bomb =
      "a: &a [lol, lol, lol, lol, lol, lol, lol, lol, lol]\n"
      "b: &b [*a, *a, *a, *a, *a, *a, *a, *a, *a]\n"
      "c: &c [*b, *b, *b, *b, *b, *b, *b, *b, *b]\n"
      "d: &d [*c, *c, *c, *c, *c, *c, *c, *c, *c]\n"
      "e: [*d, *d, *d, *d, *d, *d, *d, *d, *d]\n";
  std::string error;
  EXPECT_FALSE(load(bomb, &error));
  EXPECT_NE(error.find("anchor"), std::string::npos) << error;
  EXPECT_FALSE(load("a: *nothing", &error));
  EXPECT_NE(error.find("alias"), std::string::npos) << error;
  EXPECT_FALSE(load("a: !!str x", &error));
  EXPECT_NE(error.find("tag"), std::string::npos) << error;

  std::string deep = "a: " + std::string(200000, '[') + std::string(200000, ']');
  EXPECT_FALSE(load(deep, &error));
  EXPECT_NE(error.find("nested too deeply"), std::string::npos) << error;
  EXPECT_FALSE(load(std::string(9 << 20, '#'), &error));
  EXPECT_NE(error.find("larger than"), std::string::npos) << error;
}

// YAML writes "nothing" as an empty value, "~" or "null": each means the field isn't there.
TEST(RuleManagerTest, NullsAreAbsentFields) {
  auto manager = load(
      "com.x:\n  ids:\n  organization: ~\n  caches:\n    cache:\n  logs: null\n"
      "com.y:\ncom.z:\n  ids: [a, ~, b]\n  organization: \"~\"\n");
  ASSERT_TRUE(manager);
  const Rule& x = manager->rules.at(BundleIDRule{CaseInsensitiveString("com.x")});
  ASSERT_TRUE(x.caches);
  EXPECT_TRUE(x.caches->empty());
  EXPECT_FALSE(x.logs);
  EXPECT_TRUE(manager->extraInfo("com.x").first.empty());
  EXPECT_FALSE(manager->extraInfo("com.x").second);
  EXPECT_TRUE(manager->bundleIDs.count(CaseInsensitiveString("com.y")));
  EXPECT_EQ(manager->extraInfo("com.z").first.size(), 2u);
  // A quoted "~" is text.
  EXPECT_EQ(manager->extraInfo("com.z").second, CaseInsensitiveString("~"));
}

}  // namespace
}  // namespace Core
