#pragma once

// The two message protocols between the library and its privileged helper: `RVHelperProtocol`,
// which the helper offers, and `RVHelperDelegate`, through which it reports deletions. Each has
// its interface description for the transport and the adapters that turn calls into messages and
// messages back into calls.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Xpc.h"

namespace helper {

// The helper's service name: also the installed tool's file name and its unit's base name.
inline constexpr char kServiceName[] = "com.fernhollow.Ravelin.PrivilegedHelper";
// The name of the product's earlier helper, known only to the installer.
inline constexpr char kOlderServiceName[] = "com.fernhollow.Bastion.PrivilegedHelper";

// The socket of the helper instance that serves user `uid`: each user has a helper of their own.
std::string helperSocketPath(unsigned uid);

class RVHelperProtocol {
 public:
  virtual ~RVHelperProtocol() = default;
  // Liveness ping: the helper calls `reply` at once.
  virtual void test(std::function<void()> reply) = 0;
  // Deletes the paths as root; progress comes back through `RVHelperDelegate`.
  virtual void deleteAtPaths(std::vector<std::string> paths) = 0;
  virtual void pauseDeleting() = 0;
  virtual void resumeDeleting() = 0;
  virtual void stopDeleting() = 0;
  // Measures a folder as root: the sum of its regular files' sizes.
  virtual void getDirectorySizeAt(std::string path, std::function<void(std::int64_t)> reply) = 0;
  virtual void stopGettingSize() = 0;
  // Switches the system unit (or, with `global`, the unit of every user's session) `label` on
  // or off with systemctl as root; `reply` says whether the unit's state is now the one asked
  // for. The helper switches only listed startup items (the administrator's and the packages'
  // units), or on again what it switched off itself.
  virtual void setUnitEnabled(std::string label, bool global, bool enabled,
                              std::function<void(bool)> reply) = 0;
};

class RVHelperDelegate {
 public:
  virtual ~RVHelperDelegate() = default;
  virtual void helperDeletedAt(const std::string& path, bool success) = 0;
  virtual void helperDeletingAt(const std::string& path) = 0;
  virtual void helperDeletionCompleted() = 0;
};

const platform::xpc::Interface& helperProtocolInterface();
const platform::xpc::Interface& helperDelegateInterface();

// `RVHelperProtocol` calls sent through `proxy`.
std::shared_ptr<RVHelperProtocol> helperProxy(std::shared_ptr<platform::xpc::Proxy> proxy);
// `RVHelperDelegate` calls sent through `proxy`.
std::shared_ptr<RVHelperDelegate> delegateProxy(std::shared_ptr<platform::xpc::Proxy> proxy);

// Delivers the messages of `helperProtocolInterface` to `object`, held weakly.
std::shared_ptr<platform::xpc::Receiver> helperReceiver(std::weak_ptr<RVHelperProtocol> object);
// Delivers the messages of `helperDelegateInterface` to `object`, held weakly.
std::shared_ptr<platform::xpc::Receiver> delegateReceiver(std::weak_ptr<RVHelperDelegate> object);

}  // namespace helper
