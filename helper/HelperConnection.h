#pragma once

// The library's connection to its privileged helper, for one task: made by whoever needs root
// (the deleter, the folder measurer), given a delegate and an error handler, connected, used
// through `helper`, and closed. The helper is installed first when it is missing or older than
// the one the program ships, if the caller says it is required.
//
// Callbacks of `RVHelperDelegate` arrive on the transport's queue; `errorHandler` is always
// called on the main queue, at most once per connection. Blocks given to the transport or to the
// queues hold this object weakly: letting go of it ends everything.

#include <functional>
#include <memory>
#include <string>

#include "helper/Protocols.h"
#include "platform/Dispatch.h"
#include "platform/Xpc.h"

namespace helper {

class HelperConnection;

// Receives the helper's callbacks for a `HelperConnection` without keeping it alive.
class ExportedObject final : public RVHelperDelegate {
 public:
  explicit ExportedObject(std::weak_ptr<HelperConnection> connection)
      : connection(std::move(connection)) {}
  void helperDeletedAt(const std::string& path, bool success) override;
  void helperDeletingAt(const std::string& path) override;
  void helperDeletionCompleted() override;

  std::weak_ptr<HelperConnection> connection;
};

class HelperConnection : public std::enable_shared_from_this<HelperConnection> {
  struct Token {};

 public:
  explicit HelperConnection(Token) {}
  static std::shared_ptr<HelperConnection> create();
  ~HelperConnection();
  HelperConnection(const HelperConnection&) = delete;
  HelperConnection& operator=(const HelperConnection&) = delete;

  // Connects unless already connected. When the installed helper is missing or older than the
  // shipped one: with `required` false gives false; with `required` true installs it first
  // (asking the user), giving false when that fails. True means a connection stands and a ping
  // is on its way, not that the helper has answered; an unanswered ping ends the connection
  // after 3 seconds through `errorHandler`. Called on the main thread.
  bool connect(bool required);
  // Ends the connection without calling `errorHandler`.
  void close();

  std::shared_ptr<RVHelperProtocol> helper;
  std::weak_ptr<RVHelperDelegate> delegate;
  std::function<void()> errorHandler;

 private:
  friend class ExportedObject;
  void cleanUp();
  void exitedOrCrashed();
  void notResponding();

  std::shared_ptr<platform::xpc::Connection> connection_;
  std::shared_ptr<platform::DispatchWorkItem> timeoutHandler_;
  std::shared_ptr<ExportedObject> exported_;  // kept here: the transport holds only its adapter
};

// Names the helper's socket for this process. A host that does has started its own helper
// there, so `connect` no longer asks the installer whether one must be installed. An empty path
// goes back to the installed helper's socket.
void setHelperSocket(const std::string& path);
bool usesOwnHelperSocket();

}  // namespace helper
