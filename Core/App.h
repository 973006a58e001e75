#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "Core/CaseInsensitiveString.h"
#include "Core/File.h"

namespace Core {

// By which of an application's names a file was tied to it.
struct BundleID {
  CaseInsensitiveString id;
  friend bool operator==(const BundleID&, const BundleID&) = default;
};
struct BundleName {
  CaseInsensitiveString name;
  friend bool operator==(const BundleName&, const BundleName&) = default;
};
struct Organization {
  CaseInsensitiveString name;
  friend bool operator==(const Organization&, const Organization&) = default;
};
using MacAppID = std::variant<BundleID, BundleName, Organization>;

// The owner of an application file: an installed application, by the name the file was tied
// to, or a name that no installed application answers to.
struct InstalledApp {
  MacAppID id;
  friend bool operator==(const InstalledApp&, const InstalledApp&) = default;
};
struct AppName {
  CaseInsensitiveString id;
  friend bool operator==(const AppName&, const AppName&) = default;
};
using App = std::variant<InstalledApp, AppName>;

// A file that belongs to an application, with what kind of file it is.
struct AppFile {
  struct Other {
    std::string text;
    friend bool operator==(const Other&, const Other&) = default;
  };
  struct Log {
    friend bool operator==(const Log&, const Log&) = default;
  };
  struct Cache {
    friend bool operator==(const Cache&, const Cache&) = default;
  };
  struct Container {
    friend bool operator==(const Container&, const Container&) = default;
  };
  struct Support {
    friend bool operator==(const Support&, const Support&) = default;
  };
  struct Preference {
    friend bool operator==(const Preference&, const Preference&) = default;
  };
  struct Cookie {
    friend bool operator==(const Cookie&, const Cookie&) = default;
  };
  using Kind = std::variant<Other, Log, Cache, Container, Support, Preference, Cookie>;

  // "log", "cache", "container", "support", "preference" and "cookie", compared exactly, give
  // their kinds; any other text gives `Other` with that text.
  static Kind kindFromText(std::string_view text);
  static std::string textOfKind(const Kind& kind);

  std::string url;        // absolute path
  std::int64_t size = 0;  // 0 until measured
  Kind kind;
  App owner;

  std::string sizeString() const { return platform::formatByteCount(size); }
  friend bool operator==(const AppFile&, const AppFile&) = default;
};

}  // namespace Core
