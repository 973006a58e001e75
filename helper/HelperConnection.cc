#include "helper/HelperConnection.h"

#include <unistd.h>

#include <atomic>
#include <chrono>

#include "helper/HelperInstaller.h"
#include "platform/Analytics.h"

namespace helper {

namespace {

std::atomic<bool> gOwnSocket{false};

constexpr auto kPingTimeout = std::chrono::milliseconds(3000);

}  // namespace

void setHelperSocket(const std::string& path) {
  platform::xpc::setSocketPath(kServiceName, path.empty() ? helperSocketPath(::getuid()) : path);
  gOwnSocket.store(!path.empty());
}

bool usesOwnHelperSocket() { return gOwnSocket.load(); }

void ExportedObject::helperDeletedAt(const std::string& path, bool success) {
  auto owner = connection.lock();
  if (!owner) return;
  if (auto receiver = owner->delegate.lock()) receiver->helperDeletedAt(path, success);
}

void ExportedObject::helperDeletingAt(const std::string& path) {
  auto owner = connection.lock();
  if (!owner) return;
  if (auto receiver = owner->delegate.lock()) receiver->helperDeletingAt(path);
}

void ExportedObject::helperDeletionCompleted() {
  auto owner = connection.lock();
  if (!owner) return;
  if (auto receiver = owner->delegate.lock()) receiver->helperDeletionCompleted();
}

std::shared_ptr<HelperConnection> HelperConnection::create() {
  return std::make_shared<HelperConnection>(Token{});
}

HelperConnection::~HelperConnection() {
  if (connection_) {
    connection_->setInvalidationHandler(nullptr);
    connection_->invalidate();
  }
  if (timeoutHandler_) timeoutHandler_->cancel();
}

bool HelperConnection::connect(bool required) {
  // 1. Connected at most once until cleaned up.
  if (connection_) return false;
  // 2. The right helper must be in place, unless the host runs its own.
  if (!usesOwnHelperSocket() && helperNeedsInstall()) {
    if (!required) return false;
    if (!installHelper()) return false;
  }
  // This user's own instance, unless the host runs its own.
  if (!usesOwnHelperSocket())
    platform::xpc::setSocketPath(kServiceName, helperSocketPath(::getuid()));
  std::weak_ptr<HelperConnection> weakSelf = weak_from_this();
  // 3.
  connection_ = platform::xpc::Connection::toService(kServiceName, platform::xpc::kPrivileged);
  std::weak_ptr<platform::xpc::Connection> weakConnection = connection_;
  // 4. The exported object holds this object weakly.
  exported_ = std::make_shared<ExportedObject>(weakSelf);
  connection_->setExportedInterface(helperDelegateInterface());
  connection_->setExportedObject(delegateReceiver(exported_));
  // 5.
  connection_->setRemoteObjectInterface(helperProtocolInterface());
  // 6.
  helper = helperProxy(connection_->remoteObjectProxyWithErrorHandler([weakConnection] {
    if (auto connection = weakConnection.lock()) connection->invalidate();
  }));
  // 7.
  connection_->setInvalidationHandler([weakSelf] {
    if (auto self = weakSelf.lock()) self->exitedOrCrashed();
  });
  // 8. An interruption always ends in invalidation; nothing reconnects.
  connection_->setInterruptionHandler([weakConnection] {
    if (auto connection = weakConnection.lock()) connection->invalidate();
  });
  // 9.
  connection_->resume();
  // 10, 11.
  timeoutHandler_ = std::make_shared<platform::DispatchWorkItem>([weakSelf] {
    if (auto self = weakSelf.lock()) self->notResponding();
  });
  platform::DispatchQueue::main().asyncAfter(kPingTimeout, timeoutHandler_);
  // 12. The first answer stops the clock.
  if (helper) {
    std::weak_ptr<platform::DispatchWorkItem> weakItem = timeoutHandler_;
    helper->test([weakItem] {
      if (auto item = weakItem.lock()) item->cancel();
    });
  }
  // 13.
  return true;
}

void HelperConnection::exitedOrCrashed() {
  platform::analytics().recordEvent(72, {{"info", "helper exit or crashed"}});
  std::weak_ptr<HelperConnection> weakSelf = weak_from_this();
  platform::DispatchQueue::main().async([weakSelf] {
    if (auto self = weakSelf.lock()) {
      if (self->errorHandler) self->errorHandler();
    }
    if (auto self = weakSelf.lock()) self->cleanUp();
  });
}

void HelperConnection::notResponding() {
  platform::analytics().recordEvent(72, {{"info", "helper not responding"}});
  // This death must not also be reported as an exit: the invalidation handler goes first.
  if (connection_) {
    connection_->setInvalidationHandler(nullptr);
    connection_->invalidate();
  }
  cleanUp();
  if (errorHandler) errorHandler();
}

void HelperConnection::cleanUp() {
  connection_.reset();
  helper.reset();
  if (timeoutHandler_) timeoutHandler_->cancel();
  timeoutHandler_.reset();
}

void HelperConnection::close() {
  if (connection_) {
    connection_->setInvalidationHandler(nullptr);
    connection_->invalidate();
  }
  cleanUp();
}

}  // namespace helper
