#include "Core/IOSAppUUIDMapper.h"

#include <algorithm>
#include <random>

#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/Plist.h"

namespace Core {

namespace {

std::string randomUUID() {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  std::uniform_int_distribution<int> hex(0, 15);
  std::string uuid;
  for (int i = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) uuid.push_back('-');
    uuid.push_back("0123456789ABCDEF"[hex(random)]);
  }
  return uuid;
}

}  // namespace

std::optional<std::string> readBundleIdentifier(const std::string& url) {
  for (const char* info : {"Contents/Info.plist", "Info.plist"}) {
    auto plist = platform::plist::readFile(platform::joinPath(url, info));
    if (!plist) continue;
    const auto* id = plist->find("CFBundleIdentifier");
    if (id != nullptr && id->string() != nullptr) return *id->string();
  }
  return std::nullopt;
}

CaseInsensitiveString IOSAppUUIDMapper::uuid(const CaseInsensitiveString& bundleID) {
  if (auto known = uuids.find(bundleID); known != uuids.end()) return known->second;
  std::string containers = platform::joinPath(home_, "Library/Containers");
  auto entries = platform::listDirectoryConfined(containers);
  ++listings;
  if (entries.ok()) {
    // One pass reads every container not yet known, whatever identifier was asked for.
    for (const auto& entry : *entries) {
      if (entry.name.size() != 36) continue;
      CaseInsensitiveString name(entry.name);
      bool known = std::any_of(uuids.begin(), uuids.end(),
                               [&](const auto& pair) { return pair.second == name; });
      if (known) continue;
      auto metadata = platform::plist::readFile(
          platform::joinPath(platform::joinPath(containers, entry.name),
                             ".com.apple.containermanagerd.metadata.plist"));
      const auto* owner = metadata ? metadata->find("MCMMetadataIdentifier") : nullptr;
      if (owner == nullptr || owner->string() == nullptr) continue;
      uuids[CaseInsensitiveString(*owner->string())] = name;
    }
  }
  if (auto found = uuids.find(bundleID); found != uuids.end()) return found->second;
  return CaseInsensitiveString(randomUUID());
}

std::optional<WrappedBundle> WrappedBundle::make(const std::string& url,
                                                 std::shared_ptr<IOSAppUUIDMapper> uuidMapper,
                                                 const std::string& applicationsRoot) {
  if (!url.starts_with(applicationsRoot)) return std::nullopt;
  auto identifier = readBundleIdentifier(platform::joinPath(url, "WrappedBundle"));
  if (!identifier) return std::nullopt;
  WrappedBundle bundle;
  bundle.url = url;
  bundle.uuidMapper = std::move(uuidMapper);
  bundle.bundleID = bundle.uuidMapper->uuid(CaseInsensitiveString(*identifier));
  return bundle;
}

void WrappedBundle::loadNestedBundles() {
  std::string plugIns = platform::joinPath(url, "WrappedBundle/PlugIns");
  auto entries = platform::listDirectoryConfined(plugIns);
  if (!entries.ok()) return;
  for (const auto& entry : *entries) {
    if (!entry.isDirectory()) continue;
    auto identifier = readBundleIdentifier(platform::joinPath(plugIns, entry.name));
    if (!identifier) continue;
    bundleIDs.push_back(uuidMapper->uuid(CaseInsensitiveString(*identifier)));
  }
}

}  // namespace Core
