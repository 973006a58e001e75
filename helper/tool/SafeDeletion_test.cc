#include "helper/tool/SafeDeletion.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/Locations.h"
#include "platform/Text.h"
#include "testsupport/TestSupport.h"

namespace helper {
namespace {

using testsupport::TempDir;

CleanupPlaces adasPlaces() {
  CleanupPlaces places;
  places.places = {"/home/ada"};
  for (const auto& place : kSystemCleanupPlaces) places.places.push_back(place);
  places.excluded = {kHelperFolder};
  places.otherHomes = {"/home/bob", "/var/tmp/carol"};
  places.mountPoints = {"/", "/home", "/var/cache/mnt"};
  return places;
}

TEST(RefusalTest, OnlyTheServedUsersCleanupPlaces) {
  const CleanupPlaces places = adasPlaces();
  using namespace std::string_literals;
  for (const std::string& path :
       {""s, "relative/x"s, "/"s, "/etc/shadow"s, "/usr/lib"s, "/usr/lib/os-release"s, "/srv/x"s,
        "/tmp/x"s, "/home"s, "/home/ada"s, "/var/cache"s, "/home/bob"s, "/home/bob/.cache"s,
        "/var/tmp/carol/x"s, "/var/tmp"s, "/home/ada//x"s, "/home/ada/./x"s, "/home/ada/../bob"s,
        "/home/ada/x/.."s, "/usr/local/libexec/ravelin"s,
        "/usr/local/libexec/ravelin/com.fernhollow.Ravelin.PrivilegedHelper"s,
        "/usr/local/libexec"s, "/var/cache/mnt"s, "/proc/1/mem"s, "/run/user/1000/x"s,
        // A NUL ends the path where the system reads it: "/home/ada/.." would be "/home".
        "/home/ada/..\0"s, "/home/ada/x\0/y"s, "/tmp/..\0"s}) {
    EXPECT_TRUE(refusal(path, places)) << platform::escapedText(path);
  }
  for (const char* path : {"/home/ada/.cache/x", "/home/ada/x..y", "/home/ada/.hidden",
                           "/var/cache/apt/archives/x.deb", "/var/cache/mnt/inside",
                           "/var/log/syslog.2.gz", "/var/crash/a.crash", "/var/tmp/x", "/opt/app",
                           "/usr/local/share/x", "/usr/local/libexec/other"}) {
    EXPECT_FALSE(refusal(path, places)) << path << ": " << refusal(path, places).value_or("");
  }
}

// The home comes from the password database or from the helper's settings; one too short to be
// a home folder of a person ("/root", "/nonexistent") gives no place at all.
TEST(RefusalTest, TheServedHomeIsAPlaceOnlyWhenItIsOne) {
  EXPECT_FALSE(refusal("/srv/ada/x", cleanupPlacesFor(::getuid(), "/srv/ada")));
  EXPECT_TRUE(refusal("/srv/x", cleanupPlacesFor(::getuid(), "/srv")));
  EXPECT_TRUE(refusal("/root/.cache/x", cleanupPlacesFor(0)));
  EXPECT_TRUE(refusal("/nonexistent/x", cleanupPlacesFor(65534)));
}

// Whatever the scanners offer for deletion lies in a place, so that the helper can finish what
// the user's rights could not: the home's folders, the system's caches, logs and crash reports,
// and the trash.
TEST(RefusalTest, WhatTheScannersReportLiesInAPlace) {
  // A person's home, whoever runs the test (root's "/root" is no place).
  const platform::Locations locations = [] {
    testsupport::ScopedEnvironment environment({{"HOME", "/home/ada"},
                                                {"XDG_DATA_HOME", std::nullopt},
                                                {"XDG_CONFIG_HOME", std::nullopt},
                                                {"XDG_CACHE_HOME", std::nullopt}});
    return platform::Locations::fromEnvironment();
  }();
  const CleanupPlaces places = cleanupPlacesFor(::getuid(), locations.home);
  std::vector<std::string> reported = {locations.home,           locations.library,
                                       locations.configHome,     locations.cacheHome,
                                       locations.flatpakAppData, locations.systemCaches,
                                       locations.systemLogs,     locations.crashReports};
  reported.insert(reported.end(), locations.trashes.begin(), locations.trashes.end());
  for (const auto& folder : reported) {
    EXPECT_FALSE(refusal(folder + "/item", places))
        << folder << ": " << refusal(folder + "/item", places).value_or("");
  }
}

}  // namespace
}  // namespace helper
