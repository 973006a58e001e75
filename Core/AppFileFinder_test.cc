#include "Core/AppFileFinder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "Core/JunkFileFinder.h"
#include "platform/Locations.h"
#include "resources/Resources.h"
#include "testsupport/JunkRecorder.h"
#include "testsupport/TestSupport.h"

namespace Core {
namespace {

// Everything a finder reports, as paths relative to the fixture's home.
class Recorder final : public AppFileFinderDelegate {
 public:
  explicit Recorder(std::string home) : home_(std::move(home)) {}

  void appFileFinderFoundApp(const CaseInsensitiveString& id, const std::string&) override {
    foundApps.insert(id.origin());
  }
  void appFileFinderDidFindApps() override { didFindApps = true; }
  void appFileFinderFound(const CaseInsensitiveString& id, const AppFileSet& set) override {
    auto& files = appFiles[id.origin()];
    for (const auto& file : set.files) {
      files[relative(file.url)] = AppFile::textOfKind(file.kind);
      owners[relative(file.url)] = file.owner;
      sizes[relative(file.url)] = file.size;
    }
    apps[id.origin()] = set.apps;
  }
  void appFileFinderLeftovers(const CaseInsensitiveString& id,
                              const std::vector<AppFile>& files) override {
    auto& list = leftovers[id.origin()];
    for (const auto& file : files) list.insert(relative(file.url));
  }
  void appFileFinderDidFinishLeftovers() override { ++leftoversFinished; }

  std::set<std::string> foundApps;
  bool didFindApps = false;
  std::map<std::string, std::map<std::string, std::string>> appFiles;  // id: path to kind
  std::map<std::string, App> owners;
  std::map<std::string, std::int64_t> sizes;
  std::map<std::string, std::vector<File>> apps;
  std::map<std::string, std::set<std::string>> leftovers;
  int leftoversFinished = 0;

 private:
  std::string relative(const std::string& path) const {
    return path.rfind(home_ + "/", 0) == 0 ? path.substr(home_.size() + 1) : path;
  }
  std::string home_;
};

class AppFileFinderTest : public testsupport::RootedTest {
 protected:
  void home(const std::string& path, const std::string& content = "x") {
    tmp_.write("home/" + path, content);
  }

  // A typical Debian desktop: packages, one flatpak, one command-line tool, and what removed
  // applications left behind.
  void debianDesktop() {
    desktopEntry("firefox-esr", "Firefox ESR", "/usr/lib/firefox-esr/firefox-esr %u");
    program("usr/lib/firefox-esr/firefox-esr");
    home(".mozilla/firefox/abc.default-esr/prefs.js");
    home(".cache/mozilla/firefox/abc.default-esr/cache2/entry", "1234");
    desktopEntry("thunderbird", "Thunderbird", "/usr/bin/thunderbird %u");
    program("usr/bin/thunderbird");
    home(".thunderbird/abc.default/Mail/Inbox", "mail");
    home(".cache/thunderbird/abc.default/startupCache/x");
    desktopEntry("chromium", "Chromium", "/usr/bin/chromium %U");
    program("usr/bin/chromium");
    home(".config/chromium/Default/Preferences");
    home(".config/chromium/Default/GPUCache/data_0");
    home(".cache/chromium/Default/Cache/data");
    desktopEntry("gimp", "GNU Image Manipulation Program", "gimp-2.10 %U");
    program("usr/bin/gimp-2.10");
    home(".config/GIMP/2.10/gimprc");
    home(".cache/gimp/2.10/thumb");
    desktopEntry("vlc", "VLC media player", "/usr/bin/vlc --started-from-file %U");
    program("usr/bin/vlc");
    home(".config/vlc/vlcrc");
    home(".cache/vlc/art/cover.jpg");
    home(".local/share/vlc/ml.xspf");
    desktopEntry("libreoffice-writer", "LibreOffice Writer", "libreoffice --writer %U");
    desktopEntry("libreoffice-calc", "LibreOffice Calc", "libreoffice --calc %U");
    program("usr/bin/libreoffice");
    home(".config/libreoffice/4/user/registrymodifications.xcu");
    home(".cache/libreoffice/x");
    home(".local/share/mozilla/extensions/x");
    desktopEntry("code", "Visual Studio Code", "/usr/share/code/code --unity-launch %F");
    program("usr/share/code/code");
    home(".config/Code/User/settings.json");
    home(".config/Code/logs/main.log");
    home(".vscode/extensions/ext/package.json");
    // A flatpak installed system-wide, exported as flatpak does.
    tmp_.mkdir("var/lib/flatpak/app/org.kde.krita/current/active/files");
    desktopEntry("org.kde.krita", "Krita", "/usr/bin/flatpak run org.kde.krita",
                 "var/lib/flatpak/exports/share/applications");
    home(".var/app/org.kde.krita/config/kritarc");
    // A tool without a desktop entry.
    program("usr/bin/npm");
    home(".npm/_cacache/index", "npm");
    // An application whose organization is also that of a removed one.
    desktopEntry("com.example.Editor", "Editor", "example-editor");
    home(".config/example/settings");
    // Left behind by removed applications.
    home(".var/app/com.example.Gone/data/state", "gone");
    home(".config/spotify/prefs", "s");
    home(".cache/spotify/Data/x", "ss");
    // The desktop's own folders, which no application owns.
    home(".var/app/org.freedesktop.Platform.GL.default/x");
    home(".config/mimeapps.list");
  }

  std::shared_ptr<AppFileFinder> makeFinder() {
    std::string error;
    auto manager = RuleManager::load(resources::ruleDocument(), locations_, &error);
    EXPECT_TRUE(manager) << error;
    auto finder = AppFileFinder::create(std::make_shared<RuleManager>(std::move(*manager)));
    recorder_ = std::make_shared<Recorder>(tmp_ / "home");
    finder->delegate = recorder_;
    return finder;
  }

  void scan(AppFileFinder& finder) {
    finder.scan();
    ASSERT_TRUE(testsupport::drainMainUntil([&] {
      return recorder_->didFindApps && recorder_->appFiles.size() == recorder_->foundApps.size();
    }));
  }
  void scanLeftovers(AppFileFinder& finder) {
    finder.scanLeftovers();
    ASSERT_TRUE(testsupport::drainMainUntil([&] { return recorder_->leftoversFinished > 0; }));
  }

  // Every path some installed application was found to own.
  std::set<std::string> owned() const {
    std::set<std::string> paths;
    for (const auto& [id, files] : recorder_->appFiles) {
      for (const auto& [path, kind] : files) paths.insert(path);
    }
    return paths;
  }

  std::shared_ptr<Recorder> recorder_;
};

TEST_F(AppFileFinderTest, EachApplicationGetsItsOwnFilesWithKindsAndSizes) {
  debianDesktop();
  auto finder = makeFinder();
  scan(*finder);
  EXPECT_EQ(recorder_->foundApps,
            (std::set<std::string>{"chromium", "code", "com.example.Editor", "firefox-esr", "gimp",
                                   "libreoffice-calc", "libreoffice-writer", "org.kde.krita",
                                   "thunderbird", "vlc"}));
  using Files = std::map<std::string, std::string>;
  EXPECT_EQ(recorder_->appFiles["vlc"], (Files{{".cache/vlc", "cache"},
                                               {".config/vlc", "support"},
                                               {".local/share/vlc", "support"}}));
  // A folder claimed whole holds the caches and logs the rules name inside it.
  EXPECT_EQ(recorder_->appFiles["chromium"],
            (Files{{".cache/chromium", "cache"}, {".config/chromium", "support"}}));
  EXPECT_EQ(recorder_->appFiles["code"],
            (Files{{".config/Code", "support"}, {".vscode", "support"}}));
  EXPECT_EQ(recorder_->appFiles["org.kde.krita"], (Files{{".var/app/org.kde.krita", "support"}}));
  // Mail is never reported, whoever asks.
  for (const auto& path : owned()) EXPECT_EQ(path.find(".thunderbird"), std::string::npos) << path;
  // Owners say by which name: the identifier, the program's name, the organization. What two
  // applications of one organization both answer to is reported to both.
  EXPECT_EQ(recorder_->owners[".config/vlc"], App(InstalledApp{BundleID{"vlc"}}));
  EXPECT_EQ(recorder_->owners[".cache/libreoffice"], App(InstalledApp{BundleName{"libreoffice"}}));
  EXPECT_EQ(recorder_->owners[".local/share/mozilla"], App(InstalledApp{Organization{"mozilla"}}));
  EXPECT_TRUE(recorder_->appFiles["firefox-esr"].count(".local/share/mozilla"));
  EXPECT_TRUE(recorder_->appFiles["thunderbird"].count(".local/share/mozilla"));
  EXPECT_EQ(recorder_->sizes[".cache/spotify"], 0);  // not an installed application's
  EXPECT_EQ(recorder_->sizes[".cache/vlc"], 1);
  // An application's size is that of where it is installed.
  ASSERT_EQ(recorder_->apps["vlc"].size(), 1u);
  EXPECT_EQ(recorder_->apps["vlc"][0].size, 10);  // its program
  EXPECT_EQ(recorder_->apps["vlc"][0].url, tmp_ / "usr/share/applications/vlc.desktop");
}

TEST_F(AppFileFinderTest, NothingInstalledIsLeftOverAndARemovedApplicationLeavesItsFolders) {
  debianDesktop();
  const std::map<std::string, std::set<std::string>> expected = {
      {"com.example.Gone", {".var/app/com.example.Gone"}},
      {"spotify", {".cache/spotify", ".config/spotify"}}};
  {
    auto finder = makeFinder();
    scan(*finder);
    scanLeftovers(*finder);
    EXPECT_EQ(recorder_->leftovers, expected);
    EXPECT_EQ(recorder_->leftoversFinished, 1);
  }
  // The same without a scan before: the installed applications still keep what they own, though
  // "example" is the organization of the Editor and of what is gone alike.
  {
    auto finder = makeFinder();
    scanLeftovers(*finder);
    EXPECT_EQ(recorder_->leftovers, expected);
  }
  // VLC is removed: its desktop entry and program go, its folders stay, and exactly they appear.
  std::filesystem::remove(tmp_ / "usr/share/applications/vlc.desktop");
  std::filesystem::remove(tmp_ / "usr/bin/vlc");
  // The flatpak is uninstalled too; its data folder stays.
  std::filesystem::remove_all(tmp_ / "var/lib/flatpak/app/org.kde.krita");
  std::filesystem::remove(tmp_ /
                          "var/lib/flatpak/exports/share/applications/org.kde.krita.desktop");
  auto finder = makeFinder();
  scan(*finder);
  scanLeftovers(*finder);
  auto now = expected;
  now["vlc"] = {".cache/vlc", ".config/vlc", ".local/share/vlc"};
  now["org.kde.krita"] = {".var/app/org.kde.krita"};
  EXPECT_EQ(recorder_->leftovers, now);
}

TEST_F(AppFileFinderTest, AFlatpakWithoutADesktopEntryAndAToolOnlyOnThePathAreInstalled) {
  tmp_.mkdir("home/.local/share/flatpak/app/com.example.Service");
  home(".var/app/com.example.Service/data");
  home(".config/npm/npmrc");  // "npm" is named by the rules
  home(".config/pip/pip.conf");
  program("usr/bin/npm");
  auto finder = makeFinder();
  scanLeftovers(*finder);
  EXPECT_EQ(recorder_->leftovers,
            (std::map<std::string, std::set<std::string>>{{"pip", {".config/pip"}}}));
}

// A candidate keeps the spelling on disk and an application goes by many names: each of them
// keeps its folders from the leftovers, whatever the case.
TEST_F(AppFileFinderTest, AnApplicationIsInstalledByEveryNameItGoesBy) {
  const std::string snapEntries = "var/lib/snapd/desktop/applications/";
  // VS Code and Slack as classic snaps: entries named SNAP_APP, commands in /snap/bin.
  tmp_.mkdir("snap/code/current");
  program("snap/bin/code");
  tmp_.write(snapEntries + "code_code.desktop",
             "[Desktop Entry]\nType=Application\nName=Visual Studio Code\nExec=env "
             "BAMF_DESKTOP_FILE_HINT=x /snap/bin/code --force-user-env %F\nStartupWMClass=Code\n");
  home(".config/Code/User/settings.json");
  home(".vscode/extensions/ext/package.json");
  tmp_.mkdir("snap/slack/current");
  tmp_.write(snapEntries + "slack_slack.desktop",
             "[Desktop Entry]\nType=Application\nName=Slack\nExec=/snap/bin/slack %U\n");
  home(".config/Slack/storage/x");
  // Debian's maven (its command is mvn), and yarn, whose command only its file list names.
  tmp_.write("var/lib/dpkg/status",
             "Package: maven\nStatus: install ok installed\n\n"
             "Package: yarnpkg\nStatus: install ok installed\n\n"
             "Package: spotify\nStatus: deinstall ok config-files\n");
  tmp_.write("var/lib/dpkg/info/yarnpkg.list", "/usr/share/nodejs/yarn/bin/yarn\n");
  home(".config/maven/settings.xml");
  home(".config/yarn/global/x");
  // Removed: only the configuration of spotify's package is left.
  home(".config/spotify/prefs");
  auto finder = makeFinder();
  scanLeftovers(*finder);
  EXPECT_EQ(recorder_->leftovers,
            (std::map<std::string, std::set<std::string>>{{"spotify", {".config/spotify"}}}));
}

TEST_F(AppFileFinderTest, ANestedOrHiddenEntryCountsAsInstalledButIsNotScanned) {
  // A flatpak's second desktop entry is a nested identifier of the application.
  tmp_.mkdir("var/lib/flatpak/app/com.example.Suite");
  desktopEntry("com.example.Suite", "Suite", "flatpak run com.example.Suite",
               "var/lib/flatpak/exports/share/applications");
  desktopEntry("com.example.Suite.Viewer", "Suite Viewer", "flatpak run com.example.Suite",
               "var/lib/flatpak/exports/share/applications");
  tmp_.write("usr/share/applications/helper-tool.desktop",
             "[Desktop Entry]\nType=Application\nName=Helper\nExec=helper\nNoDisplay=true\n");
  desktopEntry("hidden", "Hidden", "hidden", "usr/share/applications/.old");
  home(".var/app/com.example.Suite.Viewer/cache/x");
  home(".var/app/helper-tool/x");
  auto finder = makeFinder();
  scan(*finder);
  EXPECT_EQ(recorder_->foundApps,
            (std::set<std::string>{"com.example.Suite", "com.example.Suite.Viewer"}));
  scanLeftovers(*finder);
  EXPECT_TRUE(recorder_->leftovers.empty());
  // Nothing to look at still ends with its notification.
  EXPECT_EQ(recorder_->leftoversFinished, 1);
}

// A name a matcher takes: the literal itself, or one the pattern matches.
std::optional<std::string> sampleName(const Matcher& matcher) {
  if (const auto* literal = std::get_if<StringMatcher>(&matcher)) return literal->text.origin();
  if (std::holds_alternative<RegexMatcher>(matcher)) {
    for (const char* name :
         {"x.log", "x.log.old", "event-sound-cache.tdb.abc.x86_64-pc-linux-gnu", "x"}) {
      if (match(matcher, name).matches) return std::string(name);
    }
    return std::nullopt;
  }
  return std::string("kept");
}

// What the shipped rules keep from every report ("@") or give the system ("#"): with each of
// those paths on disk and an application named after it and after the folder that holds it,
// installed or removed, no scan reports the path or a folder above it.
TEST_F(AppFileFinderTest, WhatTheShippedRulesKeepIsNeverReported) {
  std::string error;
  auto manager = RuleManager::load(resources::ruleDocument(), locations_, &error);
  ASSERT_TRUE(manager) << error;
  std::vector<std::string> kept;
  std::set<std::string> names;
  std::set<CaseInsensitiveString> distinct;  // identifiers ignore case
  auto addName = [&](std::string name) {
    name.erase(0, name.find_first_not_of('.'));  // an identifier has no leading dot
    if (!name.empty() && distinct.insert(CaseInsensitiveString(name)).second) names.insert(name);
  };
  for (const auto& [id, rule] : manager->rules) {
    if (!std::holds_alternative<BlackRule>(id) && !std::holds_alternative<SystemRule>(id)) {
      continue;
    }
    for (const auto* section : {&rule.caches, &rule.logs, &rule.support}) {
      if (!*section) continue;
      for (const auto& [kind, matchers] : **section) {
        for (const auto& matcher : matchers) {
          std::string path = matcher.root;
          for (const auto& component : matcher.pathMatchers) {
            auto name = sampleName(component);
            ASSERT_TRUE(name) << matcher.source;
            path = platform::joinPath(path, *name);
          }
          auto name = sampleName(matcher.nameMatcher);
          ASSERT_TRUE(name) << matcher.source;
          addName(platform::lastPathComponent(path));
          addName(*name);
          kept.push_back(platform::joinPath(path, *name));
        }
      }
    }
  }
  ASSERT_GE(kept.size(), 20u);
  for (const auto& path : kept) {
    std::filesystem::create_directories(path);
    std::ofstream(path + "/inside") << "kept";
  }
  auto check = [&](const std::set<std::string>& reported, const std::string& scan) {
    for (std::string path : reported) {
      if (path.front() != '/') path = tmp_ / ("home/" + path);
      for (const auto& keep : kept) {
        EXPECT_FALSE(keep == path || keep.starts_with(path + "/"))
            << scan << " reports " << path << ", which holds " << keep;
      }
    }
  };
  auto junk = [&] {
    auto finder = JunkFileFinder::create(std::make_shared<RuleManager>(*manager));
    auto paths = std::make_shared<testsupport::JunkRecorder>(tmp_ / "home");
    finder->delegate = paths;
    finder->start();
    EXPECT_TRUE(testsupport::drainMainUntil([&] { return paths->finished; }));
    return paths->paths();
  };

  // Installed: each name has an application.
  for (const auto& name : names) desktopEntry(name, name, name);
  auto finder = makeFinder();
  scan(*finder);
  EXPECT_GE(recorder_->foundApps.size(), names.size() / 2);
  check(owned(), "apps --files");
  check(junk(), "junk");
  // Removed: each name is a candidate, with a folder of its own in the configuration folder.
  std::filesystem::remove_all(tmp_ / "usr/share/applications");
  for (const auto& name : names) home(".config/" + name + "/settings");
  finder = makeFinder();
  scanLeftovers(*finder);
  std::set<std::string> leftovers;
  for (const auto& [id, paths] : recorder_->leftovers) leftovers.insert(paths.begin(), paths.end());
  check(leftovers, "leftovers");
  check(junk(), "junk");
}

}  // namespace
}  // namespace Core
