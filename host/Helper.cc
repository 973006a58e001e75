#include "host/Helper.h"

#include <memory>

#include "helper/HelperConnection.h"
#include "helper/HelperInstaller.h"
#include "host/Host.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"

namespace host {

void helperStatus(std::function<void(nlohmann::json)> done) {
  const std::string installedPath = helper::installedToolPath(helper::kServiceName);
  const bool installed = platform::fileExists(installedPath, platform::Follow::no);
  auto installedVersion = installed ? helper::readBundleVersion(installedPath) : std::nullopt;
  auto shippedVersion = helper::readBundleVersion(helper::shippedToolPath());
  nlohmann::json out{{"installed", installed},
                     {"installed_version", nullptr},
                     {"shipped_version", nullptr},
                     {"answers", false}};
  if (installedVersion) out["installed_version"] = jsonText(*installedVersion);
  if (shippedVersion) out["shipped_version"] = jsonText(*shippedVersion);

  // The first of the answer, an error and the time limit settles it; the others find it settled.
  struct Ask {
    std::shared_ptr<helper::HelperConnection> connection;
    nlohmann::json out;
    std::function<void(nlohmann::json)> done;
    void settle(bool answers) {
      if (!done) return;
      out["answers"] = answers;
      connection->close();
      connection->errorHandler = nullptr;
      auto block = std::move(done);
      done = nullptr;
      block(out);
    }
  };
  auto ask = std::make_shared<Ask>(Ask{helper::HelperConnection::create(), out, std::move(done)});
  // The connection keeps its handlers: they hold the question weakly, the time limit strongly.
  std::weak_ptr<Ask> weak = ask;
  ask->connection->errorHandler = [weak] {
    platform::DispatchQueue::main().async([weak] {
      if (auto ask = weak.lock()) ask->settle(false);
    });
  };
  if (!ask->connection->connect(false) || !ask->connection->helper) {
    ask->settle(false);
    return;
  }
  ask->connection->helper->test([weak] {
    platform::DispatchQueue::main().async([weak] {
      if (auto ask = weak.lock()) ask->settle(true);
    });
  });
  platform::DispatchQueue::main().asyncAfter(std::chrono::seconds(4),
                                             [ask] { ask->settle(false); });
}

}  // namespace host
