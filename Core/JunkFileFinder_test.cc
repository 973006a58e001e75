#include "Core/JunkFileFinder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "platform/Locations.h"
#include "resources/Resources.h"
#include "testsupport/JunkRecorder.h"
#include "testsupport/TestSupport.h"

namespace Core {
namespace {

constexpr long kDay = 24 * 3600;

using Recorder = testsupport::JunkRecorder;

class JunkFileFinderTest : public testsupport::RootedTest {
 protected:
  std::shared_ptr<JunkFileFinder> makeFinder(const std::string& document,
                                             std::vector<platform::MetadataItem> images = {}) {
    std::string error;
    auto manager = RuleManager::load(document, locations_, &error);
    EXPECT_TRUE(manager) << error;
    auto finder = JunkFileFinder::create(
        std::make_shared<RuleManager>(std::move(*manager)),
        [images] { return std::make_unique<testsupport::ScriptedQuery>(images, true); });
    recorder_ = std::make_shared<Recorder>(tmp_.path());
    finder->delegate = recorder_;
    return finder;
  }

  void runToTheEnd(JunkFileFinder& finder) {
    finder.start();
    ASSERT_TRUE(testsupport::drainMainUntil([&] { return recorder_->finished; }));
  }

  void desktopEntry(const std::string& id) { RootedTest::desktopEntry(id, id, id); }

  std::shared_ptr<Recorder> recorder_;
};

TEST_F(JunkFileFinderTest, EachCategoryHoldsOnlyWhatCanGoWithoutLoss) {
  tmp_.write("var/cache/apt/archives/vim_9.0_amd64.deb", std::string(1000, 'd'));
  tmp_.write("var/cache/man/index.db", "man");
  for (const char* kept :
       {"debconf/config.dat", "cracklib/cracklib_dict.pwd", "dictionaries-common/hunspell.db",
        "ldconfig/aux-cache", "bind/db.zone"}) {
    tmp_.write(std::string("var/cache/") + kept, "keep");
  }
  tmp_.write("var/crash/_usr_bin_app.0.crash", "crash");
  tmp_.age("var/crash/_usr_bin_app.0.crash", kDay);
  tmp_.write("var/crash/_usr_bin_now.0.crash", "being written");
  // Each log with its age in days (a negative age: minutes), and whether it is done with.
  struct Log {
    const char* path;
    double days;
    bool finished;
  };
  const Log table[] = {
      // A live log beside it, compressed, or an archived or damaged journal.
      {"syslog", 0.5, false},
      {"syslog.1", 1, true},
      {"syslog.2.gz", 2, true},
      {"dpkg.log", 0.5, false},
      {"dpkg.log.1", 3, true},
      {"Xorg.0.log", 0.5, false},
      {"Xorg.0.log.old", 3, true},
      {"apt/history.log.1.gz", 3, true},
      {"auth.log.3.xz", 3, true},
      {"journal/abc/system.journal", 0.5, false},
      {"journal/abc/system@0001-0002.journal", 3, true},
      {"journal/abc/user-1000@0003.journal~", 3, true},
      {"wtmp", 0.5, false},
      {"php7.4-fpm.log", 20, false},
      // Dated names: the newest of a family is the live one, until a week without a change.
      {"httpd/access_log.20261122", 2, true},
      {"httpd/access_log.20261123", 1, false},
      {"httpd/error_log-20261123", 1, false},
      {"messages-20261101", 10, true},
      {"app/app.log.2026-11-01", 10, true},
      // Families whose numbered files are all live, whatever their age.
      {"mysql/mysql-bin.000007", 30, false},
      {"mysql/mysql-bin.index", 30, false},
      {"mysql/mariadb-bin.000012", 30, false},
      {"mysql/host-relay-bin.000003", 30, false},
      {"mysql/ib_logfile0", 30, false},
      {"mysql/aria_log.00000001", 30, false},
      // Numbers that aren't rotations: a client's address, an archive's volumes.
      {"samba/log.192.168.1.5", 30, false},
      {"samba/log.smbd", 0.5, false},
      {"samba/log.smbd.old", 3, true},
      {"pcp/pmlogger/host/20261123.0", 0.5, false},
      {"pcp/pmlogger/host/20261123.meta", 0.5, false},
      {"pcp/pmlogger/host/20261123.index", 0.5, false},
      {"pcp/pmlogger/host/20261101.0.xz", 20, false},
      {"pcp/pmlogger/host/20261101.meta.xz", 20, false},
      {"pcp/pmlogger/host/20261120.00.10.1", 3, false},
      {"pcp/pmlogger/host/20261120.00.10.index", 3, false},
      // Changed in the last hour: perhaps still written, or being compressed.
      {"probe-rot.log", -1, false},
      {"probe-rot.log.1", -5, false},
      {"syslog.3.gz", -30, false},
  };
  std::set<std::string> rotated;
  for (const auto& log : table) {
    std::string path = std::string("var/log/") + log.path;
    tmp_.write(path, "log");
    tmp_.age(path,
             log.days < 0 ? static_cast<long>(-log.days * 60) : static_cast<long>(log.days * kDay));
    if (log.finished) rotated.insert(path);
  }
  tmp_.write("home/.local/share/Trash/files/old-report.pdf", "12345");
  tmp_.write("home/.local/share/Trash/files/folder/inside", "123");
  tmp_.write("home/.local/share/Trash/info/old-report.pdf.trashinfo", "[Trash Info]");
  // The same trash named twice (as two mounts can name it) is listed once.
  locations_.trashes.push_back(locations_.trashes.front());
  platform::setCurrentLocations(locations_);

  auto finder = makeFinder("'*': {caches: {cache: [Home/.cache/**]}}\n",
                           {{tmp_ / "home/disk.iso", 4096},
                            {tmp_ / "home/nosize.img", std::nullopt},
                            {std::nullopt, 12}});
  runToTheEnd(*finder);
  auto found = recorder_->found();
  EXPECT_EQ(found["cache"], (std::set<std::string>{"var/cache/apt", "var/cache/man"}));
  auto logs = rotated;
  logs.insert("var/crash/_usr_bin_app.0.crash");
  EXPECT_EQ(found["log"], logs);
  EXPECT_EQ(found["trash"], (std::set<std::string>{"home/.local/share/Trash/files/old-report.pdf",
                                                   "home/.local/share/Trash/files/folder"}));
  EXPECT_EQ(recorder_->size("home/.local/share/Trash/files/folder"), 3);
  EXPECT_EQ(recorder_->count("trash"), 2u);
  EXPECT_EQ(recorder_->size("var/cache/apt"), 1000);
  // A disk image without a path or a size is skipped; the others still come.
  EXPECT_EQ(found["image"], std::set<std::string>{"home/disk.iso"});
  EXPECT_EQ(recorder_->events, (std::vector<std::string>{"system files", "disk images", "finish"}));
}

TEST_F(JunkFileFinderTest, ApplicationsBrowsersAndOrphansEachGetTheirOwn) {
  desktopEntry("vlc");
  desktopEntry("firefox-esr");
  desktopEntry("quiet");  // installed, no junk: no report at all
  tmp_.write("home/.cache/vlc/art/cover.jpg", "1234");
  tmp_.write("home/.config/vlc/vlcrc", "support files are never junk");
  tmp_.write("home/.cache/mozilla/firefox/abc/cache2/entry", "12");
  tmp_.write("home/.cache/google-chrome/Default/Cache/x", "123");  // a browser not installed
  tmp_.write("home/.cache/spotify/data", "1");                     // an application that is gone
  tmp_.write("home/.cache/fontconfig/cache-7", "the system's");    // never reported
  tmp_.write("home/.xsession-errors", "the system's");
  // Installed without a desktop entry of their own: a command, a package by another name, a
  // snap browser.
  ::chmod(tmp_.write("usr/bin/npm", "#!/bin/sh\n").c_str(), 0755);
  tmp_.write("home/.npm/_cacache/index", "n");
  tmp_.write("var/lib/dpkg/status", "Package: maven\nStatus: install ok installed\n");
  tmp_.write("home/.m2/repository/junit/x.jar", "j");
  tmp_.mkdir("snap/chromium/current");
  tmp_.write("home/snap/chromium/common/.cache/x", "c");
  auto finder = makeFinder(std::string(resources::ruleDocument()));
  runToTheEnd(*finder);
  auto found = recorder_->found();
  EXPECT_EQ(found["app npm"], std::set<std::string>{"home/.npm/_cacache"});
  EXPECT_EQ(found["app maven"], std::set<std::string>{"home/.m2/repository"});
  EXPECT_EQ(found["browser chromium_chromium"],
            std::set<std::string>{"home/snap/chromium/common/.cache"});
  EXPECT_EQ(found["app vlc"], std::set<std::string>{"home/.cache/vlc"});
  EXPECT_EQ(found["browser firefox-esr"], std::set<std::string>{"home/.cache/mozilla/firefox"});
  EXPECT_EQ(found["orphan google-chrome"], std::set<std::string>{"home/.cache/google-chrome"});
  EXPECT_EQ(found["orphan spotify"], std::set<std::string>{"home/.cache/spotify"});
  EXPECT_EQ(found.count("app quiet"), 0u);
  // What an installed application took is no orphan.
  EXPECT_EQ(found.count("orphan vlc"), 0u);
  EXPECT_EQ(found.count("orphan firefox-esr"), 0u);
  for (const auto& [category, paths] : found) {
    for (const auto& path : paths) {
      EXPECT_EQ(path.find("fontconfig"), std::string::npos) << category;
      EXPECT_EQ(path.find("vlcrc"), std::string::npos) << category;
      EXPECT_EQ(path.find("xsession"), std::string::npos) << category;
    }
  }
  // The browsers come apart, after everything else.
  ASSERT_GE(recorder_->events.size(), 2u);
  EXPECT_EQ(recorder_->events[recorder_->events.size() - 2], "browser");
}

// With no application installed to take it, an entry that a general rule claims without an
// identifier is an orphan on its own, named after the entry.
TEST_F(JunkFileFinderTest, AnEntryWithoutAnIdentifierStandsAlone) {
  tmp_.write("home/.cache/crash.dump", "22");
  tmp_.write("home/.cache/app.gone/y", "333");
  auto finder = makeFinder(
      "'*': {caches: {cache: [Home/.cache/**, 'Home/.cache/*.*\\.dump']}}\n"
      "'@': {caches: {cache: ['99:Home/.cache/secret']}}\n");
  tmp_.write("home/.cache/secret/z", "never");
  runToTheEnd(*finder);
  auto found = recorder_->found();
  EXPECT_EQ(found["orphan crash.dump"], std::set<std::string>{"home/.cache/crash.dump"});
  EXPECT_EQ(found["orphan app.gone"], std::set<std::string>{"home/.cache/app.gone"});
  EXPECT_EQ(found.size(), 2u);
}

TEST_F(JunkFileFinderTest, AnUnreadableLogFolderEndsOnlyTheLogs) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as an unprivileged user";
  ::chmod(tmp_.path().c_str(), 0755);
  tmp_.write("var/crash/app.crash", "c");
  tmp_.age("var/crash/app.crash", kDay);
  tmp_.write("var/log/syslog.1", "old");
  ::chmod((tmp_ / "var/log").c_str(), 0700);
  tmp_.write("home/.local/share/Trash/files/item", "t");
  for (const char* path : {"home", "home/.local", "home/.local/share", "home/.local/share/Trash",
                           "home/.local/share/Trash/files", "var", "var/crash"}) {
    ::chmod((tmp_ / path).c_str(), 0755);
  }
  auto finder = makeFinder("'*': {caches: {cache: [Home/.cache/**]}}\n");
  {
    testsupport::AsUnprivilegedUser user;
    ASSERT_TRUE(user.ok());
    runToTheEnd(*finder);
  }
  auto found = recorder_->found();
  EXPECT_EQ(found["log"], std::set<std::string>{"var/crash/app.crash"});
  EXPECT_EQ(found["trash"], std::set<std::string>{"home/.local/share/Trash/files/item"});
}

TEST_F(JunkFileFinderTest, StopEndsEveryStageAndTheScanStillFinishes) {
  tmp_.write("var/cache/apt/x", "1");
  desktopEntry("vlc");
  tmp_.write("home/.cache/vlc/x", "1");
  auto finder = makeFinder(std::string(resources::ruleDocument()));
  finder->stop();  // before start: nothing to stop
  finder->start();
  finder->stop();
  // A stop reaches the application stage too, whenever it starts.
  ASSERT_TRUE(testsupport::drainMainUntil([&] {
    finder->stop();
    return recorder_->finished;
  }));
  auto found = recorder_->found();
  EXPECT_TRUE(found["image"].empty());
  EXPECT_TRUE(found["app vlc"].empty());
  EXPECT_EQ(recorder_->events.front(), "system files");
  EXPECT_EQ(recorder_->events.back(), "finish");
}

}  // namespace
}  // namespace Core
