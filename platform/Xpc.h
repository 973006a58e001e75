#pragma once

// Connections between a program and a named service, in the shape of the platform's XPC: each
// end describes the interface it offers and the one it expects, exports an object that receives
// calls, and calls the other end through a proxy. On Linux a service is a Unix stream socket (by
// default "/run/NAME.sock"), and each message is one line of JSON:
//
//   {"selector": "getDirectorySizeAt:with:", "arguments": ["/srv"], "reply": 3}
//   {"reply": 3, "arguments": [4096]}
//
// Every message is checked against the interface before it is delivered: an unknown selector,
// arguments of the wrong number or type, a line longer than 1 MiB, a line that isn't JSON, a peer
// that closes or a write that fails all end the connection through invalidation. Handlers and
// calls on the exported object run on the connection's own serial queue, never on the main one.
// Strings travel as the reversible escaped text of `platform/Text.h`, so paths of any bytes
// arrive intact.

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/Dispatch.h"

namespace platform::xpc {

// The value types that travel: text, a list of texts, a signed 64-bit number, a flag.
enum class ArgumentType { string, stringArray, int64, boolean };

// A reply block and the types it is called with.
struct ReplyBlock {
  std::vector<ArgumentType> arguments;
};

using Parameter = std::variant<ArgumentType, ReplyBlock>;

struct Method {
  std::string selector;
  std::vector<Parameter> parameters;  // at most one reply block
};

// What one end offers, as its protocol declares it.
class Interface {
 public:
  Interface() = default;
  Interface(std::string protocol, std::vector<Method> methods);
  const std::string& protocol() const { return protocol_; }
  const Method* find(const std::string& selector) const;

 private:
  std::string protocol_;
  std::vector<Method> methods_;
};

// Whether `values` (a JSON array) fit `types`.
bool conforms(const nlohmann::json& values, const std::vector<ArgumentType>& types);

// One line read from the other end, checked: a call of the exported interface with arguments of
// the declared types (strings unescaped) and a reply id exactly when the method has a reply block,
// or an answer to one of our calls (its types are checked against the call it answers).
struct Message {
  bool isAnswer = false;
  std::string selector;  // of a call
  nlohmann::json arguments = nlohmann::json::array();
  std::optional<std::int64_t> reply;
};

// Nothing when `line` is anything else; such a line ends the connection.
std::optional<Message> decodeMessage(std::string_view line, const Interface& exported);

// One call as the receiving end gets it: the selector, the arguments other than the reply block
// (strings already unescaped), and the reply block if the method has one. Calling `reply` sends
// the answer back; calling it more than once, or after the connection ended, does nothing.
struct Call {
  std::string selector;
  nlohmann::json arguments = nlohmann::json::array();
  std::function<void(nlohmann::json)> reply;
};

// The exported object: receives the calls of the other end, on the connection's queue.
class Receiver {
 public:
  virtual ~Receiver() = default;
  virtual void receive(Call call) = 0;
};

class Connection;

// Sends calls to the other end. Strings in `arguments` are plain bytes; they are escaped on the
// way. A call that doesn't fit the remote interface, or that can't be sent, runs the error block
// (on the connection's queue) and invalidates the connection.
class Proxy {
 public:
  void send(const std::string& selector, nlohmann::json arguments = nlohmann::json::array(),
            std::function<void(nlohmann::json)> reply = {}) const;

 private:
  friend class Connection;
  Proxy(std::weak_ptr<Connection> connection, std::function<void()> errorHandler);
  std::weak_ptr<Connection> connection_;
  std::shared_ptr<std::function<void()>> errorHandler_;
};

// Option of `toService`: the service runs as root in the system's domain.
inline constexpr std::uint64_t kPrivileged = 4096;

// The socket of a named service: "/run/NAME.sock" unless set in code by the host.
std::string socketPath(const std::string& serviceName);
void setSocketPath(const std::string& serviceName, std::string path);

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // A connection to the service `name`; nothing happens until `resume`. A service that can't be
  // reached invalidates the connection at `resume`.
  static std::shared_ptr<Connection> toService(const std::string& name, std::uint64_t options);
  // The service's end of an accepted socket, which the connection owns from now on.
  static std::shared_ptr<Connection> fromSocket(int fd);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void setExportedInterface(Interface interface);
  void setExportedObject(std::shared_ptr<Receiver> object);
  void setRemoteObjectInterface(Interface interface);
  std::shared_ptr<Proxy> remoteObjectProxyWithErrorHandler(std::function<void()> handler);

  // The invalidation handler runs once, when the connection ends for whatever reason; an empty
  // function clears it. The interruption handler runs when the other end went away unasked,
  // before the connection is invalidated.
  void setInvalidationHandler(std::function<void()> handler);
  void setInterruptionHandler(std::function<void()> handler);

  // Connects (for a client) and starts reading.
  void resume();
  // Ends the connection: no call is delivered or sent after it. Safe from any thread, any
  // number of times.
  void invalidate();

  const DispatchQueue& queue() const { return queue_; }

 private:
  friend class Proxy;
  struct Shared;
  Connection(std::string serviceName, int fd);
  void send(const std::string& selector, nlohmann::json arguments,
            std::function<void(nlohmann::json)> reply,
            const std::shared_ptr<std::function<void()>>& errorHandler);
  static void deliver(const std::shared_ptr<Shared>& shared, std::string line);

  DispatchQueue queue_;
  std::shared_ptr<Shared> shared_;
};

}  // namespace platform::xpc
