#pragma once

// The installed applications as bundles: an identity (identifier and name) and the identities of
// what is nested inside. Two kinds: macOS-layout bundles ("X.app/Contents/Info.plist"), found on
// any disk, and Linux applications, known by their desktop entries.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Core/CaseInsensitiveString.h"

namespace Core {

class AppBundle {
 public:
  virtual ~AppBundle() = default;
  // Fills `bundleIDs` and `bundleNames` with what is nested in the bundle. Loading a bundle
  // doesn't do it: the walk costs, so users ask for it.
  virtual void loadNestedBundles() = 0;

  std::string url;  // the bundle folder, or the desktop entry
  CaseInsensitiveString bundleID;
  std::vector<CaseInsensitiveString> bundleIDs;
  std::vector<CaseInsensitiveString> bundleNames;
  std::string icon;  // a desktop entry's Icon: a theme's icon name, or a path
};

struct BundleIdentity {
  std::string identifier;
  std::string name;
};

// The identity of a macOS-layout bundle: CFBundleIdentifier of Contents/Info.plist, and
// CFBundleName or else the executable's file name. Nothing unless the bundle has an identifier,
// an information dictionary, and an executable that lies in a "MacOS" folder.
std::optional<BundleIdentity> readBundleIdentity(const std::string& url);

class MacAppBundle final : public AppBundle {
 public:
  static std::optional<MacAppBundle> make(const std::string& url);
  // Walks Contents through the folders that hold nested bundles (Frameworks, MacOS, Library,
  // LoginItems, PlugIns, Applications, XPCServices, Developer, SharedSupport), frameworks through
  // their Versions, and every nested bundle through its own Contents.
  void loadNestedBundles() override;
};

// A Linux application: identifier = its desktop-file ID without ".desktop" (a flatpak's
// application ID), names = its Name, its executable's file name and its StartupWMClass, url = the
// desktop entry.
class DesktopAppBundle final : public AppBundle {
 public:
  // Nothing for a file that isn't a readable desktop entry of an application.
  static std::optional<DesktopAppBundle> make(const std::string& url, const std::string& id);
  // A flatpak's other desktop entries and the D-Bus services it exports.
  void loadNestedBundles() override;
};

class IOSAppUUIDMapper;

class AppBundleLoader {
 public:
  // In an arm64 build the loader also makes bundles of iPhone and iPad applications, with a
  // mapper of its own over the home folder's containers.
  AppBundleLoader();

  // The bundle at `url`: a desktop entry (its ID from the application folders, else its file
  // name), a macOS-layout bundle, or in an arm64 build a wrapped iPhone or iPad application;
  // nothing when it has no identity.
  std::unique_ptr<AppBundle> bundle(const std::string& url) const;

  std::shared_ptr<IOSAppUUIDMapper> uuidMapper;  // arm64 builds only
};

// The top-level applications of this machine, as the platform lists them.
std::vector<std::string> applicationURLs();

}  // namespace Core
