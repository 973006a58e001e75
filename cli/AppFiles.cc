#include "cli/AppFiles.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <set>

#include "Core/RuleManager.h"
#include "host/Host.h"
#include "platform/Dispatch.h"

namespace cli {

using namespace host;

namespace {

class Gatherer final : public Core::AppFileFinderDelegate {
 public:
  void appFileFinderFoundApp(const Core::CaseInsensitiveString& id, const std::string&) override {
    found.insert(id.origin());
  }
  void appFileFinderDidFindApps() override { didFindApps = true; }
  void appFileFinderFound(const Core::CaseInsensitiveString& id,
                          const Core::AppFileSet& set) override {
    report.installed[id.origin()] = gathered(set.apps, set.files);
  }
  void appFileFinderLeftovers(const Core::CaseInsensitiveString& id,
                              const std::vector<Core::AppFile>& files) override {
    report.leftovers[id.origin()] = gathered({}, files);
  }
  void appFileFinderDidFinishLeftovers() override { leftoversDone = true; }

  bool scanDone() const { return didFindApps && report.installed.size() == found.size(); }

  std::set<std::string> found;
  bool didFindApps = false;
  bool leftoversDone = false;
  AppFilesReport report;

 private:
  static AppFiles gathered(std::vector<Core::File> apps, std::vector<Core::AppFile> files) {
    AppFiles out;
    out.apps = std::move(apps);
    out.files = std::move(files);
    std::sort(out.files.begin(), out.files.end(),
              [](const auto& a, const auto& b) { return a.url < b.url; });
    for (const auto& file : out.files) out.size += file.size;
    return out;
  }
};

}  // namespace

AppFilesReport findAppFiles(bool leftovers) {
  if (Core::RuleManager::shared() == nullptr) {
    throw CommandError{kFailure, Core::RuleManager::sharedLoadError()};
  }
  auto gatherer = std::make_shared<Gatherer>();
  auto finder = Core::AppFileFinder::create();
  finder->delegate = gatherer;
  StatusLine status;
  finder->scan();
  while (!gatherer->scanDone()) {
    platform::runMainUntil([&] { return gatherer->scanDone(); }, std::chrono::milliseconds(100));
    status.show(gatherer->didFindApps
                    ? fmt::format("measured {} of {} applications",
                                  gatherer->report.installed.size(), gatherer->found.size())
                    : fmt::format("found {} applications", gatherer->found.size()));
  }
  if (leftovers) {
    status.show("looking for what removed applications left");
    finder->scanLeftovers();
    platform::runMainUntil([&] { return gatherer->leftoversDone; }, std::chrono::hours(24));
  }
  status.clear();
  return std::move(gatherer->report);
}

std::string kindText(const Core::AppFile::Kind& kind) { return Core::AppFile::textOfKind(kind); }

std::string ownerText(const Core::App& owner) {
  if (const auto* name = std::get_if<Core::AppName>(&owner)) return name->id.origin();
  const auto& id = std::get<Core::InstalledApp>(owner).id;
  if (const auto* bundle = std::get_if<Core::BundleID>(&id)) return "id:" + bundle->id.origin();
  if (const auto* name = std::get_if<Core::BundleName>(&id)) return "name:" + name->name.origin();
  return "organization:" + std::get<Core::Organization>(id).name.origin();
}

nlohmann::json fileJson(const Core::AppFile& file, bool owner) {
  nlohmann::json out = {
      {"path", jsonText(file.url)}, {"size", file.size}, {"kind", jsonText(kindText(file.kind))}};
  if (owner) out["owner"] = jsonText(ownerText(file.owner));
  return out;
}

}  // namespace cli
