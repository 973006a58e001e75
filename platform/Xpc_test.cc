#include "platform/Xpc.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <random>

#include "testsupport/TestSupport.h"

namespace platform::xpc {
namespace {

const Interface& service() {
  static const auto* interface = new Interface(
      "Service", {{"echo:with:", {ArgumentType::string, ReplyBlock{{ArgumentType::string}}}},
                  {"count:", {ArgumentType::stringArray}},
                  {"flag:value:", {ArgumentType::boolean, ArgumentType::int64}}});
  return *interface;
}

// Records what arrives and answers echo: with the text it was given.
class Recorder final : public Receiver {
 public:
  void receive(Call call) override {
    std::lock_guard lock(mutex);
    calls.push_back(call.selector);
    if (call.selector == "echo:with:") {
      received = call.arguments[0].get<std::string>();
      call.reply(nlohmann::json::array({received}));
    }
  }
  std::mutex mutex;
  std::vector<std::string> calls;
  std::string received;
};

// Both ends of a socket pair: `client` calls `service()` on `server`, which records.
struct Pair {
  Pair() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    server = Connection::fromSocket(fds[0]);
    server->setExportedInterface(service());
    server->setExportedObject(recorder);
    server->setInvalidationHandler([this] { serverEnded = true; });
    server->resume();
    client = Connection::fromSocket(fds[1]);
    client->setRemoteObjectInterface(service());
    client->setInvalidationHandler([this] { clientEnded = true; });
    client->setInterruptionHandler([this] { clientInterrupted = true; });
    client->resume();
    proxy = client->remoteObjectProxyWithErrorHandler([this] { ++proxyErrors; });
  }
  // The handlers point at this value: each queue is drained after the end, so that none of them
  // runs once it is gone.
  ~Pair() {
    for (auto* connection : {&server, &client}) {
      (*connection)->setInvalidationHandler(nullptr);
      (*connection)->setInterruptionHandler(nullptr);
      (*connection)->invalidate();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    server->queue().sync([] {});
    client->queue().sync([] {});
  }
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<Connection> server, client;
  std::shared_ptr<Proxy> proxy;
  std::atomic<bool> serverEnded{false}, clientEnded{false}, clientInterrupted{false};
  std::atomic<int> proxyErrors{0};
};

using testsupport::drainMainUntil;

TEST(XpcTest, CallsAndRepliesCarryAnyBytes) {
  Pair pair;
  const std::string bytes = std::string("odd\xFF\\xFF name\n", 14);
  std::string answer;
  std::atomic<bool> answered{false};
  pair.proxy->send("echo:with:", nlohmann::json::array({bytes}), [&](nlohmann::json values) {
    answer = values[0].get<std::string>();
    answered = true;
  });
  pair.proxy->send("count:", nlohmann::json::array({std::vector<std::string>{"a", "b"}}));
  ASSERT_TRUE(drainMainUntil([&] { return answered.load(); }));
  EXPECT_EQ(answer, bytes);
  EXPECT_EQ(pair.recorder->received, bytes);
  EXPECT_TRUE(drainMainUntil([&] {
    std::lock_guard lock(pair.recorder->mutex);
    return pair.recorder->calls.size() == 2;
  }));
  EXPECT_FALSE(pair.serverEnded);
  EXPECT_EQ(pair.proxyErrors, 0);
}

// A call that doesn't fit the interface never leaves: the error block runs and the connection
// ends.
TEST(XpcTest, CallsOfTheWrongShapeAreRefusedBeforeSending) {
  Pair pair;
  pair.proxy->send("flag:value:", nlohmann::json::array({1, 2}));
  EXPECT_TRUE(drainMainUntil([&] { return pair.clientEnded.load(); }));
  EXPECT_EQ(pair.proxyErrors, 1);
  pair.proxy->send("count:", nlohmann::json::array({std::vector<std::string>{}}));
  EXPECT_TRUE(drainMainUntil([&] { return pair.proxyErrors == 2; }));  // ended: can't be sent
  std::lock_guard lock(pair.recorder->mutex);
  EXPECT_TRUE(pair.recorder->calls.empty());
}

// What the other end sends is hostile: anything that isn't a well-formed call of the interface
// ends the connection, and nothing is delivered.
TEST(XpcTest, HostileMessagesEndTheConnection) {
  const std::vector<std::string> hostile = {
      "not json\n",
      "[1,2]\n",
      "{\"selector\":\"unknown:\",\"arguments\":[]}\n",
      "{\"selector\":\"count:\",\"arguments\":[\"not a list\"]}\n",
      "{\"selector\":\"count:\",\"arguments\":[[1]]}\n",
      "{\"selector\":\"flag:value:\",\"arguments\":[true]}\n",
      "{\"selector\":\"echo:with:\",\"arguments\":[\"no reply id\"]}\n",
      "{\"selector\":\"count:\",\"arguments\":[[]],\"reply\":4}\n",
      "{\"selector\":\"count:\",\"arguments\":[[\"bad \\\\q escape\"]]}\n",
      "{\"reply\":99,\"arguments\":[]}\n",
      "{\"selector\":7,\"arguments\":[]}\n",
      std::string(1024 * 1024 + 10, 'x'),
  };
  for (const auto& message : hostile) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    auto recorder = std::make_shared<Recorder>();
    std::atomic<bool> ended{false};
    auto server = Connection::fromSocket(fds[0]);
    server->setExportedInterface(service());
    server->setExportedObject(recorder);
    server->setInvalidationHandler([&] { ended = true; });
    server->resume();
    std::size_t sent = 0;
    while (sent < message.size()) {
      ssize_t n = ::send(fds[1], message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<std::size_t>(n);
    }
    EXPECT_TRUE(drainMainUntil([&] { return ended.load(); })) << message.substr(0, 60);
    std::lock_guard lock(recorder->mutex);
    EXPECT_TRUE(recorder->calls.empty()) << message.substr(0, 60);
    ::close(fds[1]);
  }
}

// Random and mutated messages, for a fixed count under the sanitizers: the decoder refuses them
// or gives a message that fits the interface, and never crashes.
TEST(XpcTest, RandomAndMutatedMessagesNeverCrashTheDecoder) {
  const std::vector<std::string> seeds = {
      "{\"selector\":\"echo:with:\",\"arguments\":[\"x\"],\"reply\":1}",
      "{\"selector\":\"count:\",\"arguments\":[[\"a\",\"b\\\\xFF\"]]}",
      "{\"selector\":\"flag:value:\",\"arguments\":[true,-9223372036854775808]}",
      "{\"reply\":1,\"arguments\":[\"y\"]}"};
  std::mt19937 random(20261123);
  int accepted = 0;
  for (int i = 0; i < 100000; ++i) {
    std::string message = seeds[random() % seeds.size()];
    int edits = 1 + static_cast<int>(random() % 4);
    for (int e = 0; e < edits && !message.empty(); ++e) {
      std::size_t at = random() % message.size();
      switch (random() % 3) {
        case 0:
          message[at] = static_cast<char>(random());
          break;
        case 1:
          message.erase(at, 1 + random() % 3);
          break;
        default:
          message.insert(at, 1, "{}[]\",:\\0123456789"[random() % 18]);
      }
    }
    auto decoded = decodeMessage(message, service());
    if (!decoded) continue;
    ++accepted;
    if (!decoded->isAnswer) {
      const Method* method = service().find(decoded->selector);
      ASSERT_NE(method, nullptr) << message;
    }
  }
  // Some mutations leave a valid message: the seeds themselves are accepted.
  EXPECT_GT(accepted, 0);
  for (const auto& seed : seeds) EXPECT_TRUE(decodeMessage(seed, service())) << seed;
}

// A peer that goes away interrupts, then invalidates; a cleared handler is not called.
TEST(XpcTest, APeerThatGoesAwayInterruptsThenInvalidates) {
  Pair pair;
  pair.server->invalidate();
  EXPECT_TRUE(drainMainUntil([&] { return pair.clientEnded.load(); }));
  EXPECT_TRUE(pair.clientInterrupted);

  Pair quiet;
  quiet.client->setInvalidationHandler(nullptr);
  quiet.client->invalidate();
  quiet.client->invalidate();
  EXPECT_TRUE(drainMainUntil([&] { return quiet.serverEnded.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(quiet.clientEnded);
}

TEST(XpcTest, AServiceThatIsntThereInvalidatesAtResume) {
  testsupport::TempDir tmp;
  setSocketPath("org.example.Missing", tmp / "missing.sock");
  auto connection = Connection::toService("org.example.Missing", kPrivileged);
  std::atomic<bool> ended{false};
  connection->setInvalidationHandler([&] { ended = true; });
  connection->resume();
  EXPECT_TRUE(drainMainUntil([&] { return ended.load(); }));
}

}  // namespace
}  // namespace platform::xpc
