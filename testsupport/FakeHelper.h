#pragma once

// A stand-in for the privileged helper on a socket of the test's: it takes one connection,
// answers the ping after a delay or never, and takes every other message without a word. For the
// tests of what a client does when the helper is slow or stuck.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "helper/Protocols.h"
#include "platform/Xpc.h"

namespace testsupport {

class FakeHelper {
 public:
  // Listens on `socket`, which anyone may connect to; answers the ping after `pingDelay`, or never
  // without one.
  FakeHelper(const std::string& socket, std::optional<std::chrono::milliseconds> pingDelay)
      : pingDelay_(pingDelay) {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket.c_str(), sizeof(address.sun_path) - 1);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::chmod(socket.c_str(), 0666);
    ::listen(listener_, 4);
    thread_ = std::thread([this] {
      int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      connection_ = platform::xpc::Connection::fromSocket(fd);
      connection_->setExportedInterface(helper::helperProtocolInterface());
      connection_->setExportedObject(receiver_);
      connection_->resume();
      connected_ = true;
    });
  }
  ~FakeHelper() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
    if (connection_) connection_->invalidate();
    for (auto& reply : replies_) reply.join();
  }
  FakeHelper(const FakeHelper&) = delete;
  FakeHelper& operator=(const FakeHelper&) = delete;

  // Whether a client has connected.
  bool connected() const { return connected_; }

 private:
  class Receiver final : public platform::xpc::Receiver {
   public:
    explicit Receiver(FakeHelper& owner) : owner_(owner) {}
    void receive(platform::xpc::Call call) override {
      if (call.selector != "test:" || !owner_.pingDelay_) return;
      owner_.replies_.emplace_back([reply = call.reply, delay = *owner_.pingDelay_] {
        std::this_thread::sleep_for(delay);
        reply(nlohmann::json::array());
      });
    }

   private:
    FakeHelper& owner_;
  };

  std::optional<std::chrono::milliseconds> pingDelay_;
  int listener_;
  std::atomic<bool> connected_{false};
  std::thread thread_;
  std::vector<std::thread> replies_;
  std::shared_ptr<Receiver> receiver_ = std::make_shared<Receiver>(*this);
  std::shared_ptr<platform::xpc::Connection> connection_;
};

}  // namespace testsupport
