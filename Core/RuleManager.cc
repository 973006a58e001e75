#include "Core/RuleManager.h"

#include <charconv>

#include "Core/BuiltInResource.h"
#include "platform/Yaml.h"
#include "resources/Resources.h"

namespace Core {

namespace {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

std::optional<platform::Regex> wholeMatchRegex(std::string_view body) {
  return platform::Regex::compile("^" + std::string(body) + "$", true);
}

std::vector<std::string_view> components(std::string_view location) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (start <= location.size()) {
    std::size_t end = location.find('/', start);
    if (end == std::string_view::npos) end = location.size();
    if (end > start) pieces.push_back(location.substr(start, end - start));
    start = end + 1;
  }
  return pieces;
}

const platform::Regex& priorityPattern() {
  static const platform::Regex* pattern =
      new platform::Regex(*platform::Regex::compile("^(\\d+):(.+)$"));
  return *pattern;
}

}  // namespace

bool operator==(const Matcher& a, const Matcher& b) {
  if (a.index() != b.index()) return false;
  return std::visit(Overloaded{
                        [&](const StringMatcher& x) { return x.text == std::get<0>(b).text; },
                        [&](const RegexMatcher& x) { return x.regex == std::get<1>(b).regex; },
                        [](const AnyMatcher&) { return true; },
                        [](const IdMatcher&) { return true; },
                    },
                    a);
}

std::size_t hashOf(const Matcher& matcher) {
  std::size_t discriminator = matcher.index();
  return std::visit(Overloaded{
                        [&](const StringMatcher& x) {
                          return discriminator * 31 + std::hash<std::string>()(x.text.folded());
                        },
                        [&](const RegexMatcher& x) { return discriminator * 31 + x.regex.hash(); },
                        [&](const auto&) { return discriminator; },
                    },
                    matcher);
}

bool operator==(const RuleID& a, const RuleID& b) {
  if (a.index() != b.index()) return false;
  return std::visit(Overloaded{
                        [&](const BundleIDRule& x) { return x.id == std::get<0>(b).id; },
                        [&](const BundleIDRegexRule& x) { return x.regex == std::get<1>(b).regex; },
                        [](const auto&) { return true; },
                    },
                    a);
}

std::size_t hashOf(const RuleID& id) {
  std::size_t discriminator = id.index();
  return std::visit(
      Overloaded{
          [&](const BundleIDRule& x) {
            return discriminator * 31 + std::hash<std::string>()(x.id.folded());
          },
          [&](const BundleIDRegexRule& x) { return discriminator * 31 + x.regex.hash(); },
          [&](const auto&) { return discriminator; },
      },
      id);
}

std::optional<RuleID> parseRuleKey(std::string_view key) {
  if (key.empty()) return std::nullopt;
  if (key == "*") return BaseRule{};
  if (key.front() == '*') {
    auto regex = wholeMatchRegex(key.substr(1));
    if (!regex) return std::nullopt;
    return BundleIDRegexRule{std::move(*regex)};
  }
  if (key == "@") return BlackRule{};
  if (key == "#") return SystemRule{};
  return BundleIDRule{CaseInsensitiveString(key)};
}

std::int64_t defaultPriority(const RuleID& id) {
  return std::visit(Overloaded{
                        [](const BaseRule&) -> std::int64_t { return 10; },
                        [](const BlackRule&) -> std::int64_t { return 20; },
                        [](const BundleIDRegexRule&) -> std::int64_t { return 30; },
                        [](const BundleIDRule&) -> std::int64_t { return 40; },
                        [](const SystemRule&) -> std::int64_t { return 90; },
                    },
                    id);
}

std::optional<Matcher> parseComponent(std::string_view component) {
  if (component.empty()) return std::nullopt;
  if (component == "*") return AnyMatcher{};
  if (component == "**") return IdMatcher{};
  if (component.front() == '*') {
    auto regex = wholeMatchRegex(component.substr(1));
    if (!regex) return std::nullopt;
    return RegexMatcher{std::move(*regex)};
  }
  return StringMatcher{CaseInsensitiveString(component)};
}

namespace {

std::vector<std::string> folderComponents(const std::string& path) {
  std::vector<std::string> parts;
  for (auto piece : components(path)) parts.emplace_back(piece);
  return parts;
}

// Moves a rule onto the outermost location that holds the folder it starts in. The data folder
// (Lib) usually lies inside the home folder: one folder on disk must be one node of the forest
// whichever location the document named, so that a rule of Home shields what a rule of Lib
// would claim there, and the other way round.
void rebaseOnOutermostLocation(PathMatcher& matcher, const platform::Locations& locations) {
  std::vector<std::string> literal = folderComponents(matcher.root);
  std::size_t leading = 0;
  while (leading < matcher.pathMatchers.size()) {
    const auto* name = std::get_if<StringMatcher>(&matcher.pathMatchers[leading]);
    if (name == nullptr) break;
    literal.push_back(name->text.origin());
    ++leading;
  }
  std::string folder;
  for (const auto& part : literal) folder += "/" + part;
  if (folder.empty()) folder = "/";
  std::string outermost;
  for (std::string candidate : {locations.home, locations.library, locations.temporary}) {
    while (candidate.size() > 1 && candidate.back() == '/') candidate.pop_back();
    if (candidate.empty() || candidate.front() != '/') continue;
    bool holds = candidate == "/" || folder == candidate || folder.starts_with(candidate + "/");
    if (holds && (outermost.empty() || candidate.size() < outermost.size())) outermost = candidate;
  }
  if (outermost.empty() || outermost == matcher.root) return;
  std::vector<Matcher> path;
  for (std::size_t i = folderComponents(outermost).size(); i < literal.size(); ++i) {
    path.push_back(StringMatcher{CaseInsensitiveString(literal[i])});
  }
  path.insert(path.end(), std::make_move_iterator(matcher.pathMatchers.begin() + leading),
              std::make_move_iterator(matcher.pathMatchers.end()));
  matcher.root = outermost;
  matcher.pathMatchers = std::move(path);
}

}  // namespace

std::optional<PathMatcher> parsePathString(std::string_view text, std::int64_t priority,
                                           const platform::Locations& locations) {
  std::string_view location = text;
  if (auto match = priorityPattern().firstMatch(text)) {
    std::string digits = *match->group(1);
    std::int64_t explicitPriority = 0;
    auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), explicitPriority);
    if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    priority = explicitPriority;
    auto range = *match->range(2);
    location = text.substr(range.location, range.length);
  }
  std::vector<std::string_view> pieces = components(location);
  PathMatcher matcher;
  matcher.priority = priority;
  matcher.source = std::string(text);
  if (location.starts_with("/")) {
    if (pieces.empty()) return std::nullopt;
    matcher.root = "/";
  } else {
    if (pieces.size() < 2) return std::nullopt;
    if (pieces.front() == "Home") {
      matcher.root = locations.home;
    } else if (pieces.front() == "Lib") {
      matcher.root = locations.library;
    } else if (pieces.front() == "Tmp") {
      matcher.root = locations.temporary;
    } else {
      return std::nullopt;
    }
    pieces.erase(pieces.begin());
  }
  for (std::size_t i = 0; i + 1 < pieces.size(); ++i) {
    auto component = parseComponent(pieces[i]);
    if (!component) return std::nullopt;
    matcher.pathMatchers.push_back(std::move(*component));
  }
  auto name = parseComponent(pieces.back());
  if (!name) return std::nullopt;
  matcher.nameMatcher = std::move(*name);
  rebaseOnOutermostLocation(matcher, locations);
  return matcher;
}

std::optional<RuleManager> RuleManager::load(std::string_view document,
                                             const platform::Locations& locations,
                                             std::string* error) {
  auto fail = [&](const std::string& message) -> std::optional<RuleManager> {
    if (error != nullptr) *error = message;
    return std::nullopt;
  };
  std::string yamlError;
  auto root = platform::yaml::parse(document, &yamlError);
  if (!root) return fail(yamlError);
  const auto* entries = root->mapping();
  if (entries == nullptr) return fail("the document is not a mapping of rule keys");

  RuleManager manager;
  for (const auto& [key, value] : *entries) {
    const std::string where = "line " + std::to_string(value.line) + ", key \"" + key + "\"";
    auto id = parseRuleKey(key);
    if (!id) return fail(where + ": not a rule key");
    const auto* fields = value.mapping();
    static const platform::yaml::Mapping kNoFields;
    if (value.null) fields = &kNoFields;  // a key with nothing after it: an entry with no fields
    if (fields == nullptr) return fail(where + ": the entry is not a mapping");

    ExtraInfo extra;
    Rule rule;
    for (const auto& [field, content] : *fields) {
      if (content.null) continue;  // a null is the same as no field
      if (field == "ids") {
        const auto* list = content.list();
        if (list == nullptr) return fail(where + ": \"ids\" is not a list");
        extra.ids.emplace();
        for (const auto& item : *list) {
          if (item.null) continue;
          if (item.string() == nullptr) return fail(where + ": an id that is not a string");
          extra.ids->emplace_back(*item.string());
        }
      } else if (field == "organization") {
        if (content.string() == nullptr) return fail(where + ": \"organization\" is not a string");
        extra.organization = CaseInsensitiveString(*content.string());
      } else if (field == "caches" || field == "logs" || field == "support") {
        const auto* kinds = content.mapping();
        if (kinds == nullptr) return fail(where + ": \"" + field + "\" is not a mapping");
        KindMatchers section;
        for (const auto& [kindName, paths] : *kinds) {
          if (paths.null) continue;
          const auto* list = paths.list();
          if (list == nullptr) {
            return fail(where + ": \"" + field + "/" + kindName + "\" is not a list");
          }
          std::vector<PathMatcher> matchers;
          for (const auto& path : *list) {
            if (path.null) continue;
            if (path.string() == nullptr) return fail(where + ": a path that is not a string");
            auto matcher = parsePathString(*path.string(), defaultPriority(*id), locations);
            if (!matcher) {
              return fail("line " + std::to_string(path.line) + ", key \"" + key + "\": \"" +
                          *path.string() + "\" is not a valid path");
            }
            matchers.push_back(std::move(*matcher));
          }
          section.emplace_back(AppFile::kindFromText(kindName), std::move(matchers));
        }
        (field == "caches" ? rule.caches
         : field == "logs" ? rule.logs
                           : rule.support) = std::move(section);
      }
      // Other fields are not the rules' business and are passed over.
    }

    if (auto* bundle = std::get_if<BundleIDRule>(&*id)) {
      manager.bundleIDs.insert(bundle->id);
      manager.extraInfos[bundle->id] = extra;
    } else if (auto* pattern = std::get_if<BundleIDRegexRule>(&*id)) {
      manager.regexExtraInfos[pattern->regex] = extra;
    }
    if (!manager.rules.emplace(std::move(*id), std::move(rule)).second) {
      return fail(where + ": the same rule key as another entry");
    }
  }
  return manager;
}

namespace {

// Made on first use, with the locations in force then; function-local statics are initialised
// once even when threads race.
const BuiltInResource<RuleManager>& builtIn() {
  static const auto* resource = new BuiltInResource<RuleManager>(
      loadBuiltIn<RuleManager>("rule.yaml", [](std::string* error) {
        return RuleManager::load(resources::ruleDocument(), platform::currentLocations(), error);
      }));
  return *resource;
}

}  // namespace

const RuleManager* RuleManager::shared() { return builtIn().value.get(); }

const std::string& RuleManager::sharedLoadError() { return builtIn().error; }

std::pair<std::vector<CaseInsensitiveString>, std::optional<CaseInsensitiveString>>
RuleManager::extraInfo(std::string_view bundleID) const {
  std::unordered_set<CaseInsensitiveString> ids;
  std::optional<CaseInsensitiveString> organization;
  for (const auto& [regex, extra] : regexExtraInfos) {
    if (!regex.matches(bundleID)) continue;
    if (extra.ids) ids.insert(extra.ids->begin(), extra.ids->end());
    organization = extra.organization;
  }
  auto exact = extraInfos.find(CaseInsensitiveString(bundleID));
  if (exact != extraInfos.end()) {
    if (exact->second.ids) ids.insert(exact->second.ids->begin(), exact->second.ids->end());
    organization = exact->second.organization;
  }
  return {std::vector<CaseInsensitiveString>(ids.begin(), ids.end()), organization};
}

}  // namespace Core
