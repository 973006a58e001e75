#include "helper/Protocols.h"

namespace helper {

using platform::xpc::ArgumentType;
using platform::xpc::Call;
using platform::xpc::Interface;
using platform::xpc::ReplyBlock;

std::string helperSocketPath(unsigned uid) {
  return "/run/ravelin/helper-" + std::to_string(uid) + ".sock";
}

const Interface& helperProtocolInterface() {
  static const auto* interface = new Interface(
      "RVHelperProtocol",
      {{"test:", {ReplyBlock{}}},
       {"deleteAtPaths:", {ArgumentType::stringArray}},
       {"pauseDeleting", {}},
       {"resumeDeleting", {}},
       {"stopDeleting", {}},
       {"getDirectorySizeAt:with:", {ArgumentType::string, ReplyBlock{{ArgumentType::int64}}}},
       {"stopGettingSize", {}},
       {"setUnitEnabled:global:enabled:with:",
        {ArgumentType::string, ArgumentType::boolean, ArgumentType::boolean,
         ReplyBlock{{ArgumentType::boolean}}}}});
  return *interface;
}

const Interface& helperDelegateInterface() {
  static const auto* interface =
      new Interface("RVHelperDelegate",
                    {{"helperDeletedAt:success:", {ArgumentType::string, ArgumentType::boolean}},
                     {"helperDeletingAt:", {ArgumentType::string}},
                     {"helperDeletionCompleted", {}}});
  return *interface;
}

namespace {

class HelperProxy final : public RVHelperProtocol {
 public:
  explicit HelperProxy(std::shared_ptr<platform::xpc::Proxy> proxy) : proxy_(std::move(proxy)) {}
  void test(std::function<void()> reply) override {
    proxy_->send("test:", nlohmann::json::array(),
                 [reply = std::move(reply)](nlohmann::json) { reply(); });
  }
  void deleteAtPaths(std::vector<std::string> paths) override {
    proxy_->send("deleteAtPaths:", nlohmann::json::array({paths}));
  }
  void pauseDeleting() override { proxy_->send("pauseDeleting"); }
  void resumeDeleting() override { proxy_->send("resumeDeleting"); }
  void stopDeleting() override { proxy_->send("stopDeleting"); }
  void getDirectorySizeAt(std::string path, std::function<void(std::int64_t)> reply) override {
    proxy_->send("getDirectorySizeAt:with:", nlohmann::json::array({path}),
                 [reply = std::move(reply)](nlohmann::json values) {
                   reply(values[0].get<std::int64_t>());
                 });
  }
  void stopGettingSize() override { proxy_->send("stopGettingSize"); }
  void setUnitEnabled(std::string label, bool global, bool enabled,
                      std::function<void(bool)> reply) override {
    proxy_->send(
        "setUnitEnabled:global:enabled:with:", nlohmann::json::array({label, global, enabled}),
        [reply = std::move(reply)](nlohmann::json values) { reply(values[0].get<bool>()); });
  }

 private:
  std::shared_ptr<platform::xpc::Proxy> proxy_;
};

class DelegateProxy final : public RVHelperDelegate {
 public:
  explicit DelegateProxy(std::shared_ptr<platform::xpc::Proxy> proxy) : proxy_(std::move(proxy)) {}
  void helperDeletedAt(const std::string& path, bool success) override {
    proxy_->send("helperDeletedAt:success:", nlohmann::json::array({path, success}));
  }
  void helperDeletingAt(const std::string& path) override {
    proxy_->send("helperDeletingAt:", nlohmann::json::array({path}));
  }
  void helperDeletionCompleted() override { proxy_->send("helperDeletionCompleted"); }

 private:
  std::shared_ptr<platform::xpc::Proxy> proxy_;
};

// Calls arrive already checked against the interface, so the arguments have the declared types.
class HelperReceiver final : public platform::xpc::Receiver {
 public:
  explicit HelperReceiver(std::weak_ptr<RVHelperProtocol> object) : object_(std::move(object)) {}
  void receive(Call call) override {
    auto object = object_.lock();
    if (!object) return;
    const auto& s = call.selector;
    if (s == "test:") {
      object->test([reply = call.reply] { reply(nlohmann::json::array()); });
    } else if (s == "deleteAtPaths:") {
      object->deleteAtPaths(call.arguments[0].get<std::vector<std::string>>());
    } else if (s == "pauseDeleting") {
      object->pauseDeleting();
    } else if (s == "resumeDeleting") {
      object->resumeDeleting();
    } else if (s == "stopDeleting") {
      object->stopDeleting();
    } else if (s == "getDirectorySizeAt:with:") {
      object->getDirectorySizeAt(
          call.arguments[0].get<std::string>(),
          [reply = call.reply](std::int64_t size) { reply(nlohmann::json::array({size})); });
    } else if (s == "stopGettingSize") {
      object->stopGettingSize();
    } else if (s == "setUnitEnabled:global:enabled:with:") {
      object->setUnitEnabled(call.arguments[0].get<std::string>(), call.arguments[1].get<bool>(),
                             call.arguments[2].get<bool>(), [reply = call.reply](bool done) {
                               reply(nlohmann::json::array({done}));
                             });
    }
  }

 private:
  std::weak_ptr<RVHelperProtocol> object_;
};

class DelegateReceiver final : public platform::xpc::Receiver {
 public:
  explicit DelegateReceiver(std::weak_ptr<RVHelperDelegate> object) : object_(std::move(object)) {}
  void receive(Call call) override {
    auto object = object_.lock();
    if (!object) return;
    const auto& s = call.selector;
    if (s == "helperDeletedAt:success:") {
      object->helperDeletedAt(call.arguments[0].get<std::string>(), call.arguments[1].get<bool>());
    } else if (s == "helperDeletingAt:") {
      object->helperDeletingAt(call.arguments[0].get<std::string>());
    } else if (s == "helperDeletionCompleted") {
      object->helperDeletionCompleted();
    }
  }

 private:
  std::weak_ptr<RVHelperDelegate> object_;
};

}  // namespace

std::shared_ptr<RVHelperProtocol> helperProxy(std::shared_ptr<platform::xpc::Proxy> proxy) {
  return std::make_shared<HelperProxy>(std::move(proxy));
}

std::shared_ptr<RVHelperDelegate> delegateProxy(std::shared_ptr<platform::xpc::Proxy> proxy) {
  return std::make_shared<DelegateProxy>(std::move(proxy));
}

std::shared_ptr<platform::xpc::Receiver> helperReceiver(std::weak_ptr<RVHelperProtocol> object) {
  return std::make_shared<HelperReceiver>(std::move(object));
}

std::shared_ptr<platform::xpc::Receiver> delegateReceiver(std::weak_ptr<RVHelperDelegate> object) {
  return std::make_shared<DelegateReceiver>(std::move(object));
}

}  // namespace helper
