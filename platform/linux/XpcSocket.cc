#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/Text.h"
#include "platform/Xpc.h"

namespace platform::xpc {

namespace {

constexpr std::size_t kMaxLine = 1024 * 1024;
// The deepest nesting of arrays and objects a message may have. The protocols need three levels
// (the message, its arguments, a list of paths); the limit is checked on the text before any
// parsing, so that nothing recursive ever meets a deeper one.
constexpr int kMaxDepth = 8;
// Lines read but not yet delivered: past this the reader stops reading until the queue catches
// up, so a peer that floods the socket fills its own buffers, not this process's memory.
constexpr std::size_t kMaxBacklog = 64;

std::mutex& pathsMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

std::map<std::string, std::string>& paths() {
  static auto* map = new std::map<std::string, std::string>;
  return *map;
}

bool conformsTo(const nlohmann::json& value, ArgumentType type) {
  switch (type) {
    case ArgumentType::string:
      return value.is_string();
    case ArgumentType::stringArray:
      if (!value.is_array()) return false;
      for (const auto& item : value) {
        if (!item.is_string()) return false;
      }
      return true;
    case ArgumentType::int64:
      return value.is_number_integer();
    case ArgumentType::boolean:
      return value.is_boolean();
  }
  return false;
}

// Whether the arrays and objects of the JSON text `line` nest at most `limit` deep. Brackets
// inside strings don't count.
bool nestsAtMost(std::string_view line, int limit) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

// Strings go out escaped and come in unescaped; nothing else changes. Nothing when a string
// holds an escape that the other end couldn't have written, or a NUL byte: no text of these
// protocols may hold one, and a path cut short at a NUL by the system would name another file.
// Called only on values whose depth `nestsAtMost` bounded, or that this process built.
std::optional<nlohmann::json> mapStrings(const nlohmann::json& value, bool escape) {
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    if (escape) return nlohmann::json(escapedText(text));
    auto bytes = unescapedText(text);
    if (!bytes || bytes->find('\0') != std::string::npos) return std::nullopt;
    return nlohmann::json(std::move(*bytes));
  }
  if (value.is_array()) {
    nlohmann::json out = nlohmann::json::array();
    for (const auto& item : value) {
      auto mapped = mapStrings(item, escape);
      if (!mapped) return std::nullopt;
      out.push_back(std::move(*mapped));
    }
    return out;
  }
  return value;
}

}  // namespace

Interface::Interface(std::string protocol, std::vector<Method> methods)
    : protocol_(std::move(protocol)), methods_(std::move(methods)) {}

const Method* Interface::find(const std::string& selector) const {
  for (const auto& method : methods_) {
    if (method.selector == selector) return &method;
  }
  return nullptr;
}

bool conforms(const nlohmann::json& values, const std::vector<ArgumentType>& types) {
  if (!values.is_array() || values.size() != types.size()) return false;
  for (std::size_t i = 0; i < types.size(); ++i) {
    if (!conformsTo(values[i], types[i])) return false;
  }
  return true;
}

std::string socketPath(const std::string& serviceName) {
  std::lock_guard lock(pathsMutex());
  auto found = paths().find(serviceName);
  return found != paths().end() ? found->second : "/run/" + serviceName + ".sock";
}

void setSocketPath(const std::string& serviceName, std::string path) {
  std::lock_guard lock(pathsMutex());
  paths()[serviceName] = std::move(path);
}

// What the connection, its reader thread and the blocks on its queue share. The reader and the
// queued blocks hold it strongly, so it outlives the `Connection` object while they run.
struct Connection::Shared {
  DispatchQueue queue;
  std::string serviceName;

  std::mutex mutex;  // guards everything below
  int fd = -1;
  bool resumed = false;
  bool invalidated = false;
  Interface exportedInterface;
  Interface remoteInterface;
  std::shared_ptr<Receiver> exportedObject;
  std::function<void()> invalidationHandler;
  std::function<void()> interruptionHandler;
  std::int64_t nextReply = 1;
  struct Pending {
    std::vector<ArgumentType> types;
    std::function<void(nlohmann::json)> block;
  };
  std::map<std::int64_t, Pending> pending;

  std::mutex writeMutex;  // one line at a time on the socket

  // Lines handed to the queue and not yet delivered; the reader waits while there are too many.
  std::mutex backlogMutex;
  std::condition_variable backlogShrank;
  std::size_t backlog = 0;
  std::atomic<bool> ended{false};  // set with `invalidated`, readable without `mutex`

  explicit Shared(DispatchQueue queue, std::string name)
      : queue(std::move(queue)), serviceName(std::move(name)) {}

  // Ends the connection once: the socket is shut so the reader wakes, and the invalidation
  // handler is queued.
  static void invalidate(const std::shared_ptr<Shared>& shared) {
    std::function<void()> handler;
    {
      std::lock_guard lock(shared->mutex);
      if (shared->invalidated) return;
      shared->invalidated = true;
      shared->ended = true;
      if (shared->fd >= 0) ::shutdown(shared->fd, SHUT_RDWR);
      handler = std::move(shared->invalidationHandler);
      shared->invalidationHandler = nullptr;
      shared->pending.clear();
      shared->exportedObject.reset();
    }
    {
      std::lock_guard lock(shared->backlogMutex);
      shared->backlogShrank.notify_all();
    }
    if (handler) shared->queue.async(std::move(handler));
  }

  // Waits until one more line may be queued; false once the connection has ended.
  bool admitLine() {
    std::unique_lock lock(backlogMutex);
    backlogShrank.wait(lock, [this] { return backlog < kMaxBacklog || ended.load(); });
    if (ended.load()) return false;
    ++backlog;
    return true;
  }

  void lineDelivered() {
    std::lock_guard lock(backlogMutex);
    --backlog;
    backlogShrank.notify_one();
  }

  // The other end went away: the interruption handler, if any, then invalidation.
  static void peerGone(const std::shared_ptr<Shared>& shared) {
    shared->queue.async([shared] {
      std::function<void()> interruption;
      {
        std::lock_guard lock(shared->mutex);
        if (shared->invalidated) return;
        interruption = shared->interruptionHandler;
      }
      if (interruption) interruption();
      invalidate(shared);
    });
  }

  bool writeLine(const std::string& line) {
    std::lock_guard lock(writeMutex);
    int fd;
    {
      std::lock_guard state(mutex);
      if (invalidated || this->fd < 0) return false;
      fd = this->fd;
    }
    std::size_t sent = 0;
    while (sent < line.size()) {
      ssize_t n = ::send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }

  // Starts the connection's reader thread; a connection whose thread can't be made (the
  // process is at its limit) ends at once.
  static void startReading(const std::shared_ptr<Shared>& shared, int fd) {
    try {
      std::thread([shared, fd] { read(shared, fd); }).detach();
    } catch (const std::system_error&) {
      invalidate(shared);
      shared->queue.async([shared] { closeDescriptor(shared); });
    }
  }

  static void closeDescriptor(const std::shared_ptr<Shared>& shared) {
    std::lock_guard lock(shared->mutex);
    if (shared->fd >= 0) ::close(shared->fd);
    shared->fd = -1;
  }

  static void read(const std::shared_ptr<Shared>& shared, int fd) {
    {
      std::string buffer;
      char chunk[65536];
      for (;;) {
        ssize_t n = ::recv(fd, chunk, sizeof(chunk), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        buffer.append(chunk, static_cast<std::size_t>(n));
        std::size_t start = 0;
        bool admitted = true;
        for (std::size_t end; (end = buffer.find('\n', start)) != std::string::npos;
             start = end + 1) {
          if (!(admitted = shared->admitLine())) break;
          std::string line = buffer.substr(start, end - start);
          shared->queue.async([shared, line = std::move(line)]() mutable {
            Connection::deliver(shared, std::move(line));
            shared->lineDelivered();
          });
        }
        if (!admitted) break;
        buffer.erase(0, start);
        if (buffer.size() > kMaxLine) {
          invalidate(shared);
          break;
        }
      }
      peerGone(shared);
      // The descriptor is closed once nobody can use it any more: after the reader, and after
      // invalidation has shut it.
      shared->queue.async([shared] {
        invalidate(shared);
        closeDescriptor(shared);
      });
    }
  }
};

Proxy::Proxy(std::weak_ptr<Connection> connection, std::function<void()> errorHandler)
    : connection_(std::move(connection)),
      errorHandler_(std::make_shared<std::function<void()>>(std::move(errorHandler))) {}

void Proxy::send(const std::string& selector, nlohmann::json arguments,
                 std::function<void(nlohmann::json)> reply) const {
  if (auto connection = connection_.lock()) {
    connection->send(selector, std::move(arguments), std::move(reply), errorHandler_);
  }
}

Connection::Connection(std::string serviceName, int fd)
    : queue_("xpc " + serviceName, QoS::userInitiated),
      shared_(std::make_shared<Shared>(queue_, std::move(serviceName))) {
  shared_->fd = fd;
}

Connection::~Connection() { Shared::invalidate(shared_); }

std::shared_ptr<Connection> Connection::toService(const std::string& name, std::uint64_t) {
  return std::shared_ptr<Connection>(new Connection(name, -1));
}

std::shared_ptr<Connection> Connection::fromSocket(int fd) {
  return std::shared_ptr<Connection>(new Connection("peer", fd));
}

void Connection::setExportedInterface(Interface interface) {
  std::lock_guard lock(shared_->mutex);
  shared_->exportedInterface = std::move(interface);
}

void Connection::setExportedObject(std::shared_ptr<Receiver> object) {
  std::lock_guard lock(shared_->mutex);
  shared_->exportedObject = std::move(object);
}

void Connection::setRemoteObjectInterface(Interface interface) {
  std::lock_guard lock(shared_->mutex);
  shared_->remoteInterface = std::move(interface);
}

std::shared_ptr<Proxy> Connection::remoteObjectProxyWithErrorHandler(
    std::function<void()> handler) {
  return std::shared_ptr<Proxy>(new Proxy(weak_from_this(), std::move(handler)));
}

void Connection::setInvalidationHandler(std::function<void()> handler) {
  std::lock_guard lock(shared_->mutex);
  if (!shared_->invalidated) shared_->invalidationHandler = std::move(handler);
}

void Connection::setInterruptionHandler(std::function<void()> handler) {
  std::lock_guard lock(shared_->mutex);
  shared_->interruptionHandler = std::move(handler);
}

void Connection::resume() {
  int fd;
  {
    std::lock_guard lock(shared_->mutex);
    if (shared_->resumed || shared_->invalidated) return;
    shared_->resumed = true;
    fd = shared_->fd;
  }
  if (fd < 0) {
    // A client: connect to the service's socket now. A Unix socket connects at once or not at
    // all, so this never waits on the service.
    std::string path = socketPath(shared_->serviceName);
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (fd < 0 || path.size() >= sizeof(address.sun_path)) {
      if (fd >= 0) ::close(fd);
      Shared::invalidate(shared_);
      return;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      ::close(fd);
      Shared::invalidate(shared_);
      return;
    }
    std::lock_guard lock(shared_->mutex);
    if (shared_->invalidated) {
      ::close(fd);
      return;
    }
    shared_->fd = fd;
  }
  Shared::startReading(shared_, fd);
}

void Connection::invalidate() { Shared::invalidate(shared_); }

namespace {

// A method's arguments split from its reply block.
struct Signature {
  std::vector<ArgumentType> arguments;
  std::optional<std::vector<ArgumentType>> reply;
};

std::optional<Signature> signatureOf(const Interface& interface, const std::string& selector) {
  const Method* method = interface.find(selector);
  if (method == nullptr) return std::nullopt;
  Signature signature;
  for (const auto& parameter : method->parameters) {
    if (auto* type = std::get_if<ArgumentType>(&parameter)) {
      signature.arguments.push_back(*type);
    } else {
      signature.reply = std::get<ReplyBlock>(parameter).arguments;
    }
  }
  return signature;
}

}  // namespace

void Connection::send(const std::string& selector, nlohmann::json arguments,
                      std::function<void(nlohmann::json)> reply,
                      const std::shared_ptr<std::function<void()>>& errorHandler) {
  auto reportError = [this, errorHandler] {
    queue_.async([errorHandler] {
      if (*errorHandler) (*errorHandler)();
    });
  };
  std::optional<Signature> signature;
  bool usable;
  {
    std::lock_guard lock(shared_->mutex);
    usable = shared_->resumed && !shared_->invalidated;
    signature = signatureOf(shared_->remoteInterface, selector);
  }
  if (!usable) return reportError();
  // A call the other end doesn't offer, or of the wrong shape, is refused before it is sent.
  if (!signature || !conforms(arguments, signature->arguments) ||
      signature->reply.has_value() != static_cast<bool>(reply)) {
    reportError();
    return Shared::invalidate(shared_);
  }
  nlohmann::json message{{"selector", selector}, {"arguments", *mapStrings(arguments, true)}};
  if (signature->reply) {
    std::lock_guard lock(shared_->mutex);
    std::int64_t id = shared_->nextReply++;
    shared_->pending[id] = Shared::Pending{*signature->reply, std::move(reply)};
    message["reply"] = id;
  }
  if (!shared_->writeLine(message.dump() + "\n")) {
    reportError();
    Shared::invalidate(shared_);
  }
}

std::optional<Message> decodeMessage(std::string_view line, const Interface& exported) {
  // A NUL would end the parse early and hide what follows it.
  if (line.find('\0') != std::string_view::npos || !nestsAtMost(line, kMaxDepth)) {
    return std::nullopt;
  }
  nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
  if (json.is_discarded() || !json.is_object()) return std::nullopt;
  auto arguments = json.find("arguments");
  if (arguments == json.end() || !arguments->is_array()) return std::nullopt;
  auto plain = mapStrings(*arguments, false);
  if (!plain) return std::nullopt;
  auto selector = json.find("selector");
  auto reply = json.find("reply");
  Message message;
  if (reply != json.end()) {
    if (!reply->is_number_integer()) return std::nullopt;
    message.reply = reply->get<std::int64_t>();
  }
  message.arguments = std::move(*plain);
  if (selector == json.end()) {
    if (!message.reply) return std::nullopt;
    message.isAnswer = true;
    return message;
  }
  if (!selector->is_string()) return std::nullopt;
  message.selector = selector->get<std::string>();
  auto signature = signatureOf(exported, message.selector);
  if (!signature || !conforms(message.arguments, signature->arguments) ||
      signature->reply.has_value() != message.reply.has_value()) {
    return std::nullopt;
  }
  return message;
}

void Connection::deliver(const std::shared_ptr<Shared>& shared, std::string line) {
  Interface exported;
  std::shared_ptr<Receiver> object;
  {
    std::lock_guard lock(shared->mutex);
    if (shared->invalidated) return;
    exported = shared->exportedInterface;
    object = shared->exportedObject;
  }
  auto message = decodeMessage(line, exported);
  if (!message) return Shared::invalidate(shared);

  if (message->isAnswer) {
    std::optional<Shared::Pending> pending;
    {
      std::lock_guard lock(shared->mutex);
      auto found = shared->pending.find(*message->reply);
      if (found != shared->pending.end()) {
        pending = std::move(found->second);
        shared->pending.erase(found);
      }
    }
    if (!pending || !conforms(message->arguments, pending->types)) {
      return Shared::invalidate(shared);
    }
    pending->block(std::move(message->arguments));
    return;
  }

  Call call;
  call.selector = std::move(message->selector);
  call.arguments = std::move(message->arguments);
  if (message->reply) {
    std::weak_ptr<Shared> weak = shared;
    auto answered = std::make_shared<std::atomic<bool>>(false);
    auto types = signatureOf(exported, call.selector)->reply.value_or(std::vector<ArgumentType>{});
    call.reply = [weak, answered, id = *message->reply, types](nlohmann::json values) {
      if (answered->exchange(true)) return;
      auto alive = weak.lock();
      if (!alive || !conforms(values, types)) return;
      nlohmann::json answer{{"reply", id}, {"arguments", *mapStrings(values, true)}};
      if (!alive->writeLine(answer.dump() + "\n")) Shared::invalidate(alive);
    };
  }
  if (object) object->receive(std::move(call));
}

}  // namespace platform::xpc
